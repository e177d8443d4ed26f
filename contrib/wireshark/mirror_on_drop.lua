-- Mirror-on-Drop for Wireshark and tshark (4.0 and later).
--
-- Decodes the two kinds of packet of the Mirror-on-Drop feature:
--   * mirrored drop frames, EtherType 0x1042: the chip's 12-byte header (original size and timestamp, both
--     little-endian, then the dropped frame's own EtherType), and the rest of the dropped frame handed to
--     Wireshark's own dissectors (VLAN tags, IPv4/IPv6, TCP/UDP...);
--   * report datagrams on a UDP port (preference "Mirror-on-Drop report: UDP port", default 6343): the report
--     type, the drop timestamp, the four reason words, the sample's size and the sample as an Ethernet frame.
--
-- The packet list shows the mirror, not the packet inside it: Protocol "MOD" or "MODREPORT", and an Info column
-- naming the dropped flow. Drop timestamps (nanoseconds since the epoch) are shown as UTC dates as well.
--
-- The chip keeps only the first bytes of a dropped frame, so its IP and UDP length fields point past what was
-- kept. Wireshark's dissectors would flag that as an error ("BAD UDP LENGTH"); a Lua dissector cannot hand
-- them a buffer that says "cut short here, originally longer", so the dropped frame is handed over padded with
-- zeros to its original size (from the header for mirrored frames, from the sample's IP header for reports),
-- and the cut is explained: a note on the mirror's tree and a "Not kept by the mirror" item over the zeros.
--
-- Use:  tshark -X lua_script:contrib/wireshark/mirror_on_drop.lua -r drops.pcap
--       tshark -X lua_script:contrib/wireshark/mirror_on_drop.lua -o modreport.port:7000 -r reports.pcap
--       wireshark -X lua_script:contrib/wireshark/mirror_on_drop.lua, or copy the file into the personal
--       plugins folder (Help > About > Folders). Filter fields: mod.* and modreport.*.

local MOD_ETHERTYPE = 0x1042
local HEADER_LENGTH = 12
-- A report: type (1), timestamp (8), four reason words (16), sample size (1), then the sample.
local REPORT_HEADER_LENGTH = 26
local SAMPLE_MAX = 80
local ETH_HEADER_LENGTH = 14

-- Shared helpers ------------------------------------------------------------------------------------------

-- A drop timestamp (nanoseconds since the epoch, a UInt64) as an NSTime.
local function drop_time(ns)
  return NSTime.new((ns / 1000000000):tonumber(), (ns % 1000000000):tonumber())
end

-- The dropped flow's fields, as Wireshark's own dissectors decoded them. A report's datagram has IP and UDP
-- fields of its own, so only instances added after `before` (see field_counts) belong to the dropped frame.
local flow_fields = {
  ip_src = Field.new("ip.src"), ip_dst = Field.new("ip.dst"),
  ipv6_src = Field.new("ipv6.src"), ipv6_dst = Field.new("ipv6.dst"),
  tcp_src = Field.new("tcp.srcport"), tcp_dst = Field.new("tcp.dstport"),
  udp_src = Field.new("udp.srcport"), udp_dst = Field.new("udp.dstport"),
}

local function field_counts()
  local counts = {}
  for name, field in pairs(flow_fields) do counts[name] = select("#", field()) end
  return counts
end

local function added(name, before)
  local all = { flow_fields[name]() }
  return all[before[name] + 1]
end

-- "TCP 10.1.2.3:1234 → 10.4.5.6:80", or nil when the dropped frame did not decode down to TCP or UDP.
local function flow_text(before)
  local src, dst, v6 = added("ip_src", before), added("ip_dst", before), false
  if not src then
    src, dst, v6 = added("ipv6_src", before), added("ipv6_dst", before), true
  end
  local proto, sport, dport = "TCP", added("tcp_src", before), added("tcp_dst", before)
  if not sport then
    proto, sport, dport = "UDP", added("udp_src", before), added("udp_dst", before)
  end
  if not (src and dst and sport and dport) then return nil end
  local function endpoint(addr, port)
    local a = tostring(addr.value)
    return (v6 and "[" .. a .. "]" or a) .. ":" .. tostring(port.value)
  end
  return string.format("%s %s → %s", proto, endpoint(src, sport), endpoint(dst, dport))
end

-- The frame as Wireshark's dissectors should see it: `kept` (a TvbRange) padded with zeros to `length`
-- bytes when the chip cut it shorter, with an item over the zeros saying so. Returns the Tvb.
local f_not_kept = ProtoField.bytes("mod.not_kept", "Not kept by the mirror (zeros)")
local function padded(kept, length, tree, name)
  if not length or length <= kept:len() then return kept:tvb() end
  local bytes = kept:bytes()
  bytes:set_size(length)
  local whole = bytes:tvb(name)
  tree:add(f_not_kept, whole(kept:len()))
  return whole
end

-- Mirrored drop frames ------------------------------------------------------------------------------------

local mod = Proto("mod", "Mirror-on-Drop mirrored drop frame")
local f_size = ProtoField.uint16("mod.size", "Original packet size", base.DEC)
local f_timestamp = ProtoField.uint64("mod.timestamp", "Drop timestamp", base.DEC)
local f_time = ProtoField.absolute_time("mod.time", "Drop time", base.UTC)
local f_ethertype = ProtoField.uint16("mod.ethertype", "Dropped frame's EtherType", base.HEX)
local f_kept = ProtoField.uint16("mod.kept", "Bytes of the dropped frame kept", base.DEC)
mod.fields = { f_size, f_timestamp, f_time, f_ethertype, f_kept, f_not_kept }
local e_short = ProtoExpert.new("mod.short", "Mirror-on-Drop header cut short", expert.group.MALFORMED,
  expert.severity.ERROR)
local e_cut = ProtoExpert.new("mod.cut", "Dropped frame cut short by the mirror, as the chip does",
  expert.group.PROTOCOL, expert.severity.NOTE)
mod.experts = { e_short, e_cut }

local ethertypes = DissectorTable.get("ethertype")

function mod.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "MOD"
  local header = tree:add(mod, tvb(0, math.min(HEADER_LENGTH, tvb:len())))
  if tvb:len() < HEADER_LENGTH then
    header:add_proto_expert_info(e_short)
    pinfo.cols.info = string.format("Mirror-on-Drop header cut short: %d of %d bytes", tvb:len(),
      HEADER_LENGTH)
    return tvb:len()
  end
  local size = tvb(0, 2):le_uint()
  local inner = tvb(10, 2):uint()
  header:add_le(f_size, tvb(0, 2))
  header:add_le(f_timestamp, tvb(2, 8))
  header:add(f_time, tvb(2, 8), drop_time(tvb(2, 8):le_uint64()))
  header:add(f_ethertype, tvb(10, 2))
  -- The dropped frame is the outer MAC addresses, its EtherType (in the header) and what follows the header.
  local kept = tvb:len() + 2
  header:add(f_kept, tvb(HEADER_LENGTH - 2), kept):set_generated()
  if size > kept then
    header:add_proto_expert_info(e_cut, string.format(
      "Cut short by the mirror: %d of the dropped frame's %d bytes kept; its lengths point past the cut",
      kept, size))
  end
  local summary = string.format("%d bytes, EtherType 0x%04x", size, inner)
  if tvb:len() > HEADER_LENGTH then
    local before = field_counts()
    local rest = padded(tvb(HEADER_LENGTH), size - ETH_HEADER_LENGTH, header,
      "Dropped frame (zeros past the cut)")
    ethertypes:try(inner, rest, pinfo, tree)
    local flow = flow_text(before)
    if flow then summary = string.format("%s, %d bytes", flow, size) end
  end
  if size > kept then summary = summary .. string.format(" (%d kept)", kept) end
  -- The dropped frame's dissectors wrote their own protocol and summary; the list shows the mirror.
  pinfo.cols.protocol = "MOD"
  pinfo.cols.info:clear_fence()
  pinfo.cols.info = "Dropped " .. summary
  return tvb:len()
end

ethertypes:add(MOD_ETHERTYPE, mod)

-- Report datagrams ----------------------------------------------------------------------------------------

local report = Proto("modreport", "Mirror-on-Drop report")
local types = { [0] = "START", [1] = "STOP" }
local r_type = ProtoField.uint8("modreport.type", "Report type", base.DEC, types)
local r_timestamp = ProtoField.uint64("modreport.timestamp", "Drop timestamp", base.DEC)
local r_time = ProtoField.absolute_time("modreport.time", "Drop time", base.UTC)
local r_reason = ProtoField.bytes("modreport.reason", "Drop reason")
local r_word = ProtoField.uint32("modreport.reason_word", "Reason word", base.HEX)
local r_datasize = ProtoField.uint8("modreport.datasize", "Sample size", base.DEC)
local r_sample = ProtoField.bytes("modreport.sample", "Sample of the dropped frame")
report.fields = { r_type, r_timestamp, r_time, r_reason, r_word, r_datasize, r_sample }
local e_size = ProtoExpert.new("modreport.size", "Sample size above 80 bytes or beyond the datagram",
  expert.group.MALFORMED, expert.severity.ERROR)
local e_short_report = ProtoExpert.new("modreport.short", "Report cut short", expert.group.MALFORMED,
  expert.severity.ERROR)
report.experts = { e_size, e_short_report }
report.prefs.port = Pref.uint("UDP port", 6343, "The UDP port the collectors receive reports on")

local ethernet = Dissector.get("eth_withoutfcs")

-- The length of the Ethernet frame whose first bytes `sample` holds, as its IPv4 or IPv6 header says (up to
-- two 802.1Q tags skipped), or nil when the sample does not get that far.
local function claimed_frame_length(sample)
  local at = 12
  for _ = 1, 2 do
    if sample:len() < at + 2 or sample(at, 2):uint() ~= 0x8100 then break end
    at = at + 4
  end
  if sample:len() < at + 2 then return nil end
  local ethertype = sample(at, 2):uint()
  at = at + 2
  if ethertype == 0x0800 and sample:len() >= at + 4 then return at + sample(at + 2, 2):uint() end
  if ethertype == 0x86dd and sample:len() >= at + 6 then return at + 40 + sample(at + 4, 2):uint() end
  return nil
end

function report.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "MODREPORT"
  local root = tree:add(report, tvb())
  if tvb:len() < REPORT_HEADER_LENGTH then
    root:add_proto_expert_info(e_short_report)
    pinfo.cols.info = string.format("Report cut short: %d of %d bytes", tvb:len(), REPORT_HEADER_LENGTH)
    return tvb:len()
  end
  root:add(r_type, tvb(0, 1))
  root:add(r_timestamp, tvb(1, 8))
  root:add(r_time, tvb(1, 8), drop_time(tvb(1, 8):uint64()))
  local reason = root:add(r_reason, tvb(9, 16))
  for i = 0, 3 do reason:add(r_word, tvb(9 + 4 * i, 4)) end
  local size_item = root:add(r_datasize, tvb(25, 1))
  local size = tvb(25, 1):uint()
  local type_name = types[tvb(0, 1):uint()] or "unknown"
  pinfo.cols.info = string.format("%s report, sample %d bytes", type_name, size)
  if size > SAMPLE_MAX or REPORT_HEADER_LENGTH + size > tvb:len() then
    size_item:add_proto_expert_info(e_size)
    return tvb:len()
  end
  if size == 0 then return tvb:len() end
  local sample = tvb(REPORT_HEADER_LENGTH, size)
  local sample_item = root:add(r_sample, sample)
  -- The sample's own Ethernet, IP and port addresses would take over the packet list's columns; the list
  -- should keep showing the report's sender and collector, so they are put back afterwards.
  local saved = { pinfo.src, pinfo.dst, pinfo.net_src, pinfo.net_dst, pinfo.dl_src, pinfo.dl_dst,
    pinfo.src_port, pinfo.dst_port }
  local before = field_counts()
  ethernet:call(padded(sample, claimed_frame_length(sample:tvb()), sample_item,
    "Report sample (zeros past the cut)"), pinfo, tree)
  pinfo.src, pinfo.dst, pinfo.net_src, pinfo.net_dst, pinfo.dl_src, pinfo.dl_dst, pinfo.src_port,
    pinfo.dst_port = table.unpack(saved)
  pinfo.cols.protocol = "MODREPORT"
  -- Dissectors of the sample may fence their notes into the column (a TCP sample seen twice, in a START
  -- and its STOP, is marked as a retransmission); those notes are the sample's, not the report's.
  pinfo.cols.info:clear_fence()
  local flow = flow_text(before)
  pinfo.cols.info = string.format("%s report%s, sample %d bytes", type_name, flow and ": " .. flow or "",
    size)
  return tvb:len()
end

local udp_ports = DissectorTable.get("udp.port")
local registered = report.prefs.port
udp_ports:add(registered, report)

function report.prefs_changed()
  if registered ~= report.prefs.port then
    udp_ports:remove(registered, report)
    registered = report.prefs.port
    udp_ports:add(registered, report)
  end
end
