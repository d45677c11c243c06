// What lies on the card, read the plain way: the measure that played bytes are compared with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

/// All pictures of the finished streams, in order, as the index and chunks of paths() hold them.
std::vector<std::string> recordedPictures(const std::vector<uint32_t>& streamIds);
std::string joined(const std::vector<std::string>& pictures);

} // namespace test
