# Doxygen input filter for the public headers, which use plain // comments:
# a header's opening comment becomes the file's description, a // block
# right before a declaration becomes its documentation, and a trailing //
# after a member documents that member. Only a "@file" line is added, at
# the top. Angle brackets in comments ("<prefix>/share/locale") are text,
# not HTML.
BEGIN { opening = 1; print "/// @file" }
{
  line = $0
  if (opening && line ~ /^\/\/( |$)/) {
    sub(/^\/\//, "///", line)
    print escaped(line)
    next
  }
  opening = 0
  if (line ~ /^[ \t]*\/\/( |$)/) {
    sub(/\/\//, "///", line)
    line = escaped(line)
  } else if (line ~ /[;,{][ \t]*\/\/ / && line !~ /\/\/ namespace/) {
    sub(/[ \t]*\/\/ /, " ///< ", line)
  }
  print line
}

function escaped(text) {
  gsub(/</, "\\<", text)
  gsub(/>/, "\\>", text)
  return text
}
