#pragma once
// AgentConfig: what mod-agent's configuration file says, as plain values (checked by the loader: addresses
// parsed, ports and DSCP in range, one tracker at most, names within the platform's limits). The agent turns
// it into platform entities (ConfigApply); nothing here knows about entities.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/types/IpGenAddr.h"

namespace ModAgent {

struct CollectorSetting {
  std::string name;
  Calyx::IpGenAddr
      address;  // IPv4 collectors go to the exporter's IPv4 collection, IPv6 ones to its IPv6 one
  uint16_t port = 0;
  bool operator==(CollectorSetting const&) const = default;
};

struct ExporterSetting {
  std::string name;
  Calyx::IpGenAddr sourceIpv4;  // unspecified: the host chooses
  Calyx::IpGenAddr sourceIpv6;
  uint8_t dscp = 0;
  std::vector<CollectorSetting> collectors;
  bool operator==(ExporterSetting const&) const = default;
};

struct TrackerSetting {
  std::string name;
  uint32_t activeIntervalMs = 0;
  uint32_t inactiveTimeoutMs = 0;
  std::vector<ExporterSetting> exporters;
  bool operator==(TrackerSetting const&) const = default;
};

enum class ReplayClock : uint8_t { virtualTime, recorded, max };

struct AgentConfig {
  std::string file;  // where it was read from
  std::string stateDir = "/dev/shm/mirror-on-drop";
  std::string controlSocket;  // empty: <stateDir>/mod-agent.sock
  // The most flows kept at once (0: no cap). About 800 bytes of shared memory each: the default holds a
  // million flows in about 0.8 GB. Past it, new flows are refused and counted; known ones go on.
  uint64_t maxFlows = 1000000;

  bool mirrorOnDrop = true;  // the chip supports the feature
  bool exactMatch = false;   // the chip has exact-match tables
  uint32_t exactMatchCapacityIpv4 = 1024;
  uint32_t exactMatchCapacityIpv6 = 1024;
  double exactMatchInstallDelay = 0.05;

  std::vector<std::string> interfaces;  // live capture on these
  std::string replay;                   // or replay of this capture file ...
  std::string replayInterface;          // ... as this interface
  ReplayClock replayClock = ReplayClock::virtualTime;

  bool flowTrackingEnabled = true;
  std::vector<TrackerSetting> trackers;  // at most one: the hardware runs one tracker at a time

  std::string traceLevels = "*=0-1";
  std::string traceOutput = "stderr";

  bool replaying() const { return !replay.empty(); }
};

}  // namespace ModAgent
