// The protocol of every response model.
//
// C++ has no class objects, so the "class operation" that decodes a body is
// a const virtual member called on a prototype instance (the deserializer
// that callers hand to ZRKApiRequest); it must not depend on the prototype's
// fields. The dynamic type of the prototype is the class that decodes.
//
// Decoders never throw and never report errors: an absent result (nullptr)
// is their only failure signal.
#ifndef ZRK_ZRKAPIRESPONSEDECODABLE_H
#define ZRK_ZRKAPIRESPONSEDECODABLE_H

#include "zrk/ZRKExport.h"

#include <memory>
#include <optional>
#include <string>

#include "zrk/ZRKJson.h"

namespace zrk {

class ZRK_API ZRKApiResponseDecodable {
 public:
  virtual ~ZRKApiResponseDecodable() = default;

  // Builds a new model object from the parsed body (nullptr when the body
  // was no JSON), or returns nullptr when the value describes no such object.
  virtual std::shared_ptr<ZRKApiResponseDecodable> decodedObjectFromAPIResponse(const ZRKJson* response) const = 0;

  // The whole response the object was decoded from, where a model keeps it.
  virtual std::optional<ZRKJson> allResponseFields() const = 0;
};

// Implemented by a deserializer that wants to be picked from a list of
// several by the body's "object" member (ZRKApiRequest.h). The library's own
// models do not implement it.
class ZRK_API ZRKObjectNaming {
 public:
  virtual ~ZRKObjectNaming() = default;
  virtual std::string zrkObject() const = 0;
};

using ZRKDeserializer = std::shared_ptr<const ZRKApiResponseDecodable>;

}  // namespace zrk

#endif  // ZRK_ZRKAPIRESPONSEDECODABLE_H
