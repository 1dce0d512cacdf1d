// multipart/form-data bodies, built part by part.
//
// A body under boundary B is, for each part, "--B" CRLF and the part's
// bytes, then "--B--" CRLF; nothing before the first delimiter and nothing
// after the last CRLF. A part is its Content-Disposition line, its
// Content-Type line when it has a content type, a blank line, its content
// and CRLF. Names and file names are written exactly as given: no quoting,
// no escaping, so a caller that lets a quote or line break into them owns
// the result. Values are plain data, safe to copy between threads.
//
//   const std::string boundary = ZRKMultipartFormDataEncoder::generateBoundary();
//   ZRKMultipartFormDataPart image;
//   image.setName("file");
//   image.setFilename("image.jpg");
//   image.setContentType("image/jpeg");
//   image.setData(jpegBytes);
//   zrk_setMultipartFormData(request,
//       ZRKMultipartFormDataEncoder::multipartFormDataForParts({image}, boundary), boundary);
#ifndef ZRK_ZRKMULTIPARTFORMDATA_H
#define ZRK_ZRKMULTIPARTFORMDATA_H

#include "zrk/ZRKExport.h"

#include <optional>
#include <string>
#include <vector>

namespace zrk {

class ZRK_API ZRKMultipartFormDataPart {
 public:
  // Content bytes; an absent buffer writes an empty content.
  const std::optional<std::string>& data() const { return data_; }
  void setData(std::optional<std::string> data) { data_ = std::move(data); }
  // The form field name; an absent one is written as "(null)".
  const std::optional<std::string>& name() const { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }
  // Written as the "filename" parameter only when present.
  const std::optional<std::string>& filename() const { return filename_; }
  void setFilename(std::optional<std::string> filename) { filename_ = std::move(filename); }
  // Written as a Content-Type line only when present.
  const std::optional<std::string>& contentType() const { return contentType_; }
  void setContentType(std::optional<std::string> contentType) { contentType_ = std::move(contentType); }

  // The part's header lines, blank line, content and closing CRLF.
  std::string composedData() const;

 private:
  std::optional<std::string> data_;
  std::optional<std::string> name_;
  std::optional<std::string> filename_;
  std::optional<std::string> contentType_;
};

class ZRK_API ZRKMultipartFormDataEncoder {
 public:
  // "ZRKApi-iOS-" and a fresh upper-case random UUID: 47 characters, new on
  // every call. Safe from any thread.
  static std::string generateBoundary();
  // The body of the parts, in order, under the boundary.
  static std::string multipartFormDataForParts(const std::vector<ZRKMultipartFormDataPart>& parts,
                                               std::string_view boundary);
};

}  // namespace zrk

#endif  // ZRK_ZRKMULTIPARTFORMDATA_H
