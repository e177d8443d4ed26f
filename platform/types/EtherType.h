#pragma once
// The EtherTypes (and IP protocol numbers) that frames, headers and report samples are read and built with.

#include <cstdint>

namespace Calyx {

inline constexpr uint16_t kEtherTypeIp4 = 0x0800;
inline constexpr uint16_t kEtherTypeArp = 0x0806;
inline constexpr uint16_t kEtherTypeVlan = 0x8100;  // 802.1Q tag
inline constexpr uint16_t kEtherTypeIp6 = 0x86dd;

inline constexpr uint8_t kIpProtoTcp = 6;
inline constexpr uint8_t kIpProtoUdp = 17;

}  // namespace Calyx
