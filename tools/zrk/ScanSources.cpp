#include "ScanSources.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace zrk::tool {
namespace {

namespace fs = std::filesystem;

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
         });
}

bool equalsNoCase(std::string_view text, std::string_view other) {
  return text.size() == other.size() && startsWithNoCase(text, other);
}

bool isPhotoFile(const fs::path& path) {
  std::string extension = path.extension().string();
  std::ranges::transform(extension, extension.begin(), [](unsigned char c) { return std::tolower(c); });
  return extension == ".jpg" || extension == ".jpeg" || extension == ".png";
}

// Adds the folder's photos in path order; the error text, if the walk fails.
std::optional<std::string> addFolder(const fs::path& folder, std::vector<ScanSource>& sources) {
  std::vector<std::string> found;
  std::error_code error;
  // Symbolic links to folders are not followed, so a link cannot make the walk loop.
  fs::recursive_directory_iterator walk(folder, fs::directory_options::skip_permission_denied, error);
  for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
    std::error_code ignored;
    if (walk->is_regular_file(ignored) && isPhotoFile(walk->path())) found.push_back(walk->path().string());
  }
  if (error) return "cannot read the folder " + folder.string() + ": " + error.message();
  std::ranges::sort(found);
  for (std::string& name : found) sources.push_back({std::move(name), std::nullopt});
  return std::nullopt;
}

// The same file however it is named (relative, through links, with "..").
std::string identity(const fs::path& path) {
  std::error_code error;
  const fs::path canonical = fs::weakly_canonical(fs::absolute(path, error), error);
  return error ? path.lexically_normal().string() : canonical.string();
}

// Splits CSV text into records of fields. Quoted fields may hold commas,
// doubled quotes and line breaks; unquoted fields are trimmed of spaces.
// Each record carries the line it starts on. A quote left open is an error.
struct CsvRecord {
  int line;
  std::vector<std::string> fields;
};

std::variant<std::vector<CsvRecord>, std::string> parseCsv(std::string_view text) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);  // spreadsheets write a byte-order mark
  std::vector<CsvRecord> records;
  CsvRecord record{1, {}};
  std::string field;
  bool quoted = false, inQuotes = false, blank = true;
  int line = 1;
  auto endField = [&] {
    if (!quoted) {
      const auto first = field.find_first_not_of(" \t");
      field = first == std::string::npos ? "" : field.substr(first, field.find_last_not_of(" \t") - first + 1);
    }
    record.fields.push_back(std::move(field));
    field.clear();
    quoted = false;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inQuotes) {
      if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
        field += '"';
        ++i;
      } else if (c == '"') {
        inQuotes = false;
      } else {
        if (c == '\n') ++line;
        field += c;
      }
    } else if (c == '"' && field.find_first_not_of(" \t") == std::string::npos) {
      field.clear();
      inQuotes = quoted = true;
      blank = false;
    } else if (c == ',') {
      endField();
      blank = false;
    } else if (c == '\n' || c == '\r') {
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      endField();
      if (!blank || !record.fields.front().empty()) records.push_back(std::move(record));
      record = {++line, {}};
      blank = true;
    } else {
      field += c;
      if (c != ' ' && c != '\t') blank = false;
    }
  }
  if (inQuotes) return "line " + std::to_string(record.line) + ": a quote is not closed";
  endField();
  if (!blank || !record.fields.front().empty()) records.push_back(std::move(record));
  return records;
}

}  // namespace

bool isWebAddress(std::string_view source) {
  return startsWithNoCase(source, "http://") || startsWithNoCase(source, "https://");
}

std::variant<std::vector<ScanSource>, std::string> listSources(const std::vector<std::string>& arguments) {
  std::vector<ScanSource> sources;
  for (const std::string& argument : arguments) {
    if (isWebAddress(argument)) {
      auto url = ZRKURL::URLWithString(argument);
      if (!url) return "not a valid URL: " + argument;
      sources.push_back({argument, std::move(url)});
      continue;
    }
    std::error_code error;
    const fs::file_status status = fs::status(argument, error);
    if (fs::is_directory(status)) {
      if (auto problem = addFolder(argument, sources)) return *problem;
    } else if (fs::exists(status)) {
      sources.push_back({argument, std::nullopt});
    } else {
      return argument + " is neither an http(s) URL nor an existing file or folder";
    }
  }
  return sources;
}

std::variant<Expectations, std::string> Expectations::read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return "cannot read " + path;
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  auto parsed = parseCsv(text);
  if (const auto* problem = std::get_if<std::string>(&parsed)) return path + ": " + *problem;

  Expectations out;
  const fs::path folder = fs::path(path).parent_path();
  bool first = true;
  for (const CsvRecord& record : std::get<std::vector<CsvRecord>>(parsed)) {
    const std::string where = path + ": line " + std::to_string(record.line) + ": ";
    const std::vector<std::string>& fields = record.fields;
    if (fields.size() > 2) return where + "expected source,trigger, found " + std::to_string(fields.size()) + " fields";
    if (fields[0].empty()) return where + "the source is empty";
    const std::string trigger = fields.size() == 2 ? fields[1] : "";
    if (std::exchange(first, false) && equalsNoCase(fields[0], "source") && equalsNoCase(trigger, "trigger")) {
      continue;  // the header line
    }
    const std::string key = isWebAddress(fields[0]) ? fields[0] : identity(folder / fields[0]);
    if (!out.triggers_.emplace(key, trigger).second) return where + fields[0] + " is listed twice";
  }
  return out;
}

std::optional<std::string> Expectations::of(const ScanSource& source) const {
  const auto found = triggers_.find(source.url ? source.name : identity(source.name));
  if (found == triggers_.end()) return std::nullopt;
  return found->second;
}

}  // namespace zrk::tool
