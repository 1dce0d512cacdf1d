// The multipart body builder and the request's multipart fields.
//
// Input: read with FuzzedDataProvider: a boundary (empty takes a generated
// one), then up to four parts, each a presence byte (bit 0 name, bit 1 file
// name, bit 2 content type, bit 3 data) followed by those fields, each ended
// by "\" and one other byte.
#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

#include "FuzzCheck.h"
#include "zrk/ZRKMultipartFormData.h"
#include "zrk/ZRKRequestBodies.h"

namespace zrk::fuzz {

// Splits the body at its delimiters the way a server would and compares
// each part's content; only meaningful when no field can fake a delimiter
// or a header line.
void checkReadsBack(const std::string& body, const std::string& boundary,
                    const std::vector<ZRKMultipartFormDataPart>& parts) {
  const std::string delimiter = "\r\n--" + boundary;
  // A leading CRLF makes the first delimiter look like the others.
  const std::string text = "\r\n" + body;
  std::size_t at = 0;
  for (const auto& part : parts) {
    ZRK_FUZZ_CHECK(text.compare(at, delimiter.size() + 2, delimiter + "\r\n") == 0);
    const std::size_t headerStart = at + delimiter.size() + 2;
    const std::size_t headerEnd = text.find("\r\n\r\n", headerStart);
    ZRK_FUZZ_CHECK(headerEnd != std::string::npos);
    const std::string_view headers = std::string_view(text).substr(headerStart, headerEnd - headerStart);
    const std::string name = part.name().value_or("(null)");
    ZRK_FUZZ_CHECK(headers.starts_with("Content-Disposition: form-data; name=\"" + name + "\""));
    ZRK_FUZZ_CHECK((headers.find("\r\nContent-Type: ") != std::string_view::npos) == part.contentType().has_value());
    at = text.find(delimiter, headerEnd + 4);
    ZRK_FUZZ_CHECK(at != std::string::npos);
    ZRK_FUZZ_CHECK(text.compare(headerEnd + 4, at - headerEnd - 4, part.data().value_or("")) == 0);
  }
  ZRK_FUZZ_CHECK(text.compare(at, std::string::npos, delimiter + "--\r\n") == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  std::string boundary = in.ConsumeRandomLengthString(70);
  if (boundary.empty()) {
    boundary = ZRKMultipartFormDataEncoder::generateBoundary();
    ZRK_FUZZ_CHECK(boundary.size() == 47 && boundary.starts_with("ZRKApi-iOS-"));
  }

  std::vector<ZRKMultipartFormDataPart> parts(in.ConsumeIntegralInRange(0, 4));
  bool wellFormed = boundary.find_first_of("\r\n") == std::string::npos;
  std::size_t composedSize = 0;
  for (auto& part : parts) {
    const auto present = in.ConsumeIntegral<std::uint8_t>();
    const auto field = [&](int bit, std::size_t maximum) -> std::optional<std::string> {
      if (!(present & bit)) return std::nullopt;
      return in.ConsumeRandomLengthString(maximum);
    };
    part.setName(field(1, 64));
    part.setFilename(field(2, 64));
    part.setContentType(field(4, 64));
    part.setData(field(8, 4096));
    const std::string composed = part.composedData();
    ZRK_FUZZ_CHECK(composed.ends_with(part.data().value_or("") + "\r\n"));
    composedSize += composed.size();
    for (const auto* header : {&part.name(), &part.filename(), &part.contentType()}) {
      wellFormed = wellFormed && (!*header || (*header)->find_first_of("\r\n\"") == std::string::npos);
    }
    wellFormed = wellFormed && part.data().value_or("").find("\r\n--" + boundary) == std::string::npos;
  }

  const std::string body = ZRKMultipartFormDataEncoder::multipartFormDataForParts(parts, boundary);
  const std::size_t delimiterSize = 2 + boundary.size() + 2;
  ZRK_FUZZ_CHECK(body.size() == composedSize + parts.size() * delimiterSize + delimiterSize + 2);
  ZRK_FUZZ_CHECK(body.ends_with("--" + boundary + "--\r\n"));
  if (wellFormed) checkReadsBack(body, boundary, parts);

  // The declared length is the body's, and the type names the boundary.
  ZRKURLRequest request(ZRKURL::URLWithString("http://127.0.0.1/app/v1/scan"));
  zrk_setMultipartFormData(request, body, boundary);
  ZRK_FUZZ_CHECK(request.HTTPBody() == body);
  ZRK_FUZZ_CHECK(request.valueForHTTPHeaderField("Content-Length") == std::to_string(body.size()));
  ZRK_FUZZ_CHECK(request.valueForHTTPHeaderField("Content-Type") == "multipart/form-data; boundary=" + boundary);
  return 0;
}

}  // namespace zrk::fuzz
