// What lies on the card, read the plain way: the measure that played bytes are compared with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

/// The data of all pictures of the streams, in order, as the index and chunks of paths() hold them.
std::string recordedBytes(const std::vector<uint32_t>& streamIds);

} // namespace test
