// Format-information record kept in FSInfo (to be filled in).
#pragma once
#include <cstdint>
namespace velt {
struct FormatInfo {
  uint8_t raw[244] = {};
};
}  // namespace velt
