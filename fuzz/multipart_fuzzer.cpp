// The multipart body builder and the request's multipart fields.
//
// Input: read with FuzzedDataProvider: a boundary (empty takes a generated
// one), then up to four parts, each a presence byte (bit 0 name, bit 1 file
// name, bit 2 content type, bit 3 data) followed by those fields, each ended
// by "\" and one other byte.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "zrk/ZRKMultipartFormData.h"
#include "zrk/ZRKRequestBodies.h"

namespace zrk::fuzz {
namespace {

std::optional<std::string> field(FuzzedDataProvider& in, bool present, std::size_t maximum) {
  if (!present) return std::nullopt;
  return in.ConsumeRandomLengthString(maximum);
}

bool contains(const std::optional<std::string>& text, std::string_view what) {
  return text && text->find(what) != std::string::npos;
}

// Splits the body at its delimiters the way a server would and compares
// each part's content; only meaningful when no field can fake a delimiter
// or a header line.
void checkReadsBack(const std::string& body, std::string_view boundary,
                    const std::vector<ZRKMultipartFormDataPart>& parts) {
  const std::string delimiter = "\r\n--" + std::string(boundary);
  // A leading CRLF makes the first delimiter look like the others.
  const std::string text = "\r\n" + body;
  std::size_t at = 0;
  for (const auto& part : parts) {
    ZRK_FUZZ_CHECK(text.compare(at, delimiter.size() + 2, delimiter + "\r\n") == 0);
    const std::size_t headerStart = at + delimiter.size() + 2;
    const std::size_t headerEnd = text.find("\r\n\r\n", headerStart);
    ZRK_FUZZ_CHECK(headerEnd != std::string::npos);
    const std::string_view headers = std::string_view(text).substr(headerStart, headerEnd - headerStart);
    ZRK_FUZZ_CHECK(headers.starts_with("Content-Disposition: form-data; name=\"" + part.name().value_or("(null)") + "\""));
    ZRK_FUZZ_CHECK((headers.find("\r\nContent-Type: ") != std::string_view::npos) == part.contentType().has_value());
    const std::size_t contentStart = headerEnd + 4;
    const std::size_t next = text.find(delimiter, contentStart);
    ZRK_FUZZ_CHECK(next != std::string::npos);
    ZRK_FUZZ_CHECK(text.compare(contentStart, next - contentStart, part.data().value_or("")) == 0);
    at = next;
  }
  ZRK_FUZZ_CHECK(text.compare(at, std::string::npos, delimiter + "--\r\n") == 0);
}

}  // namespace
}  // namespace zrk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zrk;
  using fuzz::contains;
  FuzzedDataProvider in(data, size);

  std::string boundary = in.ConsumeRandomLengthString(70);
  if (boundary.empty()) {
    boundary = ZRKMultipartFormDataEncoder::generateBoundary();
    ZRK_FUZZ_CHECK(boundary.size() == 47 && boundary.starts_with("ZRKApi-iOS-"));
  }

  std::vector<ZRKMultipartFormDataPart> parts(in.ConsumeIntegralInRange(0, 4));
  bool wellFormed = !fuzz::hasLineBreak(boundary);
  std::size_t composedSize = 0;
  for (auto& part : parts) {
    const auto present = in.ConsumeIntegral<std::uint8_t>();
    part.setName(fuzz::field(in, present & 1, 64));
    part.setFilename(fuzz::field(in, present & 2, 64));
    part.setContentType(fuzz::field(in, present & 4, 64));
    part.setData(fuzz::field(in, present & 8, 4096));
    const std::string composed = part.composedData();
    ZRK_FUZZ_CHECK(composed.ends_with(part.data().value_or("") + "\r\n"));
    composedSize += composed.size();
    for (const auto* header : {&part.name(), &part.filename(), &part.contentType()}) {
      wellFormed = wellFormed && !contains(*header, "\r") && !contains(*header, "\n") && !contains(*header, "\"");
    }
    wellFormed = wellFormed && !contains(part.data(), "\r\n--" + boundary);
  }

  const std::string body = ZRKMultipartFormDataEncoder::multipartFormDataForParts(parts, boundary);
  const std::size_t delimiterSize = 2 + boundary.size() + 2;
  ZRK_FUZZ_CHECK(body.size() == composedSize + parts.size() * delimiterSize + delimiterSize + 2);
  ZRK_FUZZ_CHECK(body.ends_with("--" + boundary + "--\r\n"));
  if (wellFormed) fuzz::checkReadsBack(body, boundary, parts);

  // The declared length is the body's, and the type names the boundary.
  ZRKURLRequest request(ZRKURL::URLWithString("http://127.0.0.1/app/v1/scan"));
  zrk_setMultipartFormData(request, body, boundary);
  ZRK_FUZZ_CHECK(request.HTTPBody() == body);
  ZRK_FUZZ_CHECK(request.valueForHTTPHeaderField("Content-Length") == std::to_string(body.size()));
  ZRK_FUZZ_CHECK(request.valueForHTTPHeaderField("Content-Type") == "multipart/form-data; boundary=" + boundary);
  return 0;
}
