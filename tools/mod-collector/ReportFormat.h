#pragma once
// The two printed forms of a decoded report: one JSON object per line (--json) or one readable line.
//
// JSON keys, in this order: type, timestamp, reason ("0x" and 32 lowercase hex digits, word 0 first),
// data_size; then, when the sample holds an Ethernet header, dst_mac, src_mac, ethertype (a number, bytes
// 12-13 of the sample) and vlans (tag ids, outer first, possibly empty); then flow when the sample holds an
// IP header; last from (the sender, "ADDR:PORT" or "[V6ADDR]:PORT"). Neither form ends with a newline.

#include <string>

#include "tools/mod-collector/ReportDecoder.h"

namespace ModCollector {

std::string reasonText(Report const& r);
std::string reasonText(std::array<uint32_t, 4> const& words);
std::string macText(std::array<uint8_t, 6> const& mac);
// "100,200": tag ids, outer first.
std::string vlansText(std::vector<uint16_t> const& vlans);
// "TCP", "UDP", else "proto N".
std::string protoName(uint8_t ipProto);
std::string flowText(SampleFlow const& f);
std::string reportJson(Report const& r, std::string const& from);
std::string reportLine(Report const& r, std::string const& from);

}  // namespace ModCollector
