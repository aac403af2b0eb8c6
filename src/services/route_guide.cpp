#include "SorvanMapSDK/SMRouteGuide.hpp"

namespace sorvan {

std::int64_t SMRouteGuide::turnForServiceCode(std::int64_t code) {
    // The service's 4 is the kit's 6, and its 5 and 6 move down by one. Applications have
    // always switched on these values; the table is not to become the identity.
    static constexpr std::int64_t kTurns[] = {0, 1, 2, 3, 6, 4, 5};
    if (code < 0 || code > 6) {
        return 6;
    }
    return kTurns[code];
}

}  // namespace sorvan
