#include "zrk/ZRKMultipartFormData.h"

#include "platform/ZRKUUID.h"

namespace zrk {
namespace {

constexpr std::string_view kCRLF = "\r\n";

// Appends in place so that a body holds each image's bytes once, not twice.
void appendPart(std::string& out, const ZRKMultipartFormDataPart& part) {
  out += "Content-Disposition: form-data; name=\"";
  out += part.name() ? *part.name() : "(null)";
  out += '"';
  if (part.filename()) {
    out += "; filename=\"";
    out += *part.filename();
    out += '"';
  }
  out += kCRLF;
  if (part.contentType()) {
    out += "Content-Type: ";
    out += *part.contentType();
    out += kCRLF;
  }
  out += kCRLF;
  if (part.data()) out += *part.data();
  out += kCRLF;
}

std::size_t sizeOf(const ZRKMultipartFormDataPart& part) {
  const auto length = [](const std::optional<std::string>& text) { return text ? text->size() : 6; };
  return 72 + length(part.name()) + length(part.filename()) + length(part.contentType()) + length(part.data());
}

}  // namespace

std::string ZRKMultipartFormDataPart::composedData() const {
  std::string out;
  out.reserve(sizeOf(*this));
  appendPart(out, *this);
  return out;
}

std::string ZRKMultipartFormDataEncoder::generateBoundary() { return "ZRKApi-iOS-" + detail::randomUUIDString(); }

std::string ZRKMultipartFormDataEncoder::multipartFormDataForParts(const std::vector<ZRKMultipartFormDataPart>& parts,
                                                                   std::string_view boundary) {
  std::string delimiter = "--";
  delimiter += boundary;
  delimiter += kCRLF;
  std::size_t size = delimiter.size() + 2;
  for (const auto& part : parts) size += delimiter.size() + sizeOf(part);
  std::string body;
  body.reserve(size);
  for (const auto& part : parts) {
    body += delimiter;
    appendPart(body, part);
  }
  body += "--";
  body += boundary;
  body += "--";
  body += kCRLF;
  return body;
}

}  // namespace zrk
