// The completion that both listings hand to the request layer.
#ifndef ZRK_ENDPOINTS_ZRKLISTINGCOMPLETION_H
#define ZRK_ENDPOINTS_ZRKLISTINGCOMPLETION_H

#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "zrk/ZRKApiRequest.h"
#include "zrk/ZRKError.h"

namespace zrk::detail {

// Gives the caller the list inside the decoded page, not the page: (list,
// error) when the page holds a list, else (nothing, error) when there is an
// error. A page without a list and without an error is met with silence,
// and so is everything when there is no completion.
template <class Page, class List>
ZRKApiRequestCompletion listingCompletion(std::function<void(std::optional<List>, std::optional<ZRKError>)> completion,
                                          const std::optional<List>& (Page::*list)() const) {
  return [completion = std::move(completion), list](std::shared_ptr<ZRKApiResponseDecodable> answer,
                                                    std::shared_ptr<const ZRKHTTPURLResponse>,
                                                    std::optional<ZRKError> error) {
    if (!completion) return;
    const auto page = std::dynamic_pointer_cast<Page>(answer);
    if (page && (page.get()->*list)()) {
      completion((page.get()->*list)(), std::move(error));
    } else if (error) {
      completion(std::nullopt, std::move(error));
    }
  };
}

}  // namespace zrk::detail

#endif  // ZRK_ENDPOINTS_ZRKLISTINGCOMPLETION_H
