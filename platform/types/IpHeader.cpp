#include "platform/types/IpHeader.h"

namespace Calyx {

void ip4ChecksumFill(uint8_t* header) {
  header[10] = 0;
  header[11] = 0;
  uint16_t sum = Ip4HeaderView(header).checksumComputed();
  header[10] = uint8_t(sum >> 8);
  header[11] = uint8_t(sum);
}

}  // namespace Calyx
