// Files of server/data/ compiled into the service library, so `sorvan serve` and the tests
// need nothing on disk. Thread-safe (read-only).
#pragma once

#include <string_view>

namespace sorvan::server {

/// The bytes of the data file with this name ("places.tsv"); empty when there is none.
std::string_view embeddedData(std::string_view name);

}  // namespace sorvan::server
