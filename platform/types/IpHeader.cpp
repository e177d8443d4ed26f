#include "platform/types/IpHeader.h"

namespace Calyx {

namespace {

// RFC 791: the 16-bit one's-complement of the one's-complement sum of the header's 16-bit big-endian words.
uint16_t onesComplementChecksum(uint8_t const* p, size_t bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < bytes; i += 2) sum += uint32_t(p[i]) << 8 | p[i + 1];
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

uint16_t Ip4HeaderView::checksumComputed() const {
  return onesComplementChecksum(p_, headerLength());
}

void ip4ChecksumFill(uint8_t* header) {
  header[10] = 0;
  header[11] = 0;
  uint16_t sum = Ip4HeaderView(header).checksumComputed();
  header[10] = uint8_t(sum >> 8);
  header[11] = uint8_t(sum);
}

}  // namespace Calyx
