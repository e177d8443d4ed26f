-- Mirror-on-Drop for Wireshark and tshark (4.0 and later).
--
-- Decodes the two kinds of packet of the Mirror-on-Drop feature:
--   * mirrored drop frames, EtherType 0x1042: the chip's 12-byte header (original size and timestamp, both
--     little-endian, then the dropped frame's own EtherType), and the rest of the dropped frame handed to
--     Wireshark's own dissectors (VLAN tags, IPv4/IPv6, TCP/UDP...);
--   * report datagrams on a UDP port (preference "Mirror-on-Drop report: UDP port", default 6343): the report
--     type, the drop timestamp, the four reason words, the sample's size and the sample as an Ethernet frame.
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

-- Mirrored drop frames ------------------------------------------------------------------------------------

local mod = Proto("mod", "Mirror-on-Drop mirrored drop frame")
local f_size = ProtoField.uint16("mod.size", "Original packet size", base.DEC)
local f_timestamp = ProtoField.uint64("mod.timestamp", "Drop timestamp", base.DEC)
local f_ethertype = ProtoField.uint16("mod.ethertype", "Dropped frame's EtherType", base.HEX)
mod.fields = { f_size, f_timestamp, f_ethertype }
local e_short = ProtoExpert.new("mod.short", "Mirror-on-Drop header cut short", expert.group.MALFORMED,
  expert.severity.ERROR)
mod.experts = { e_short }

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
  header:add_le(f_size, tvb(0, 2))
  header:add_le(f_timestamp, tvb(2, 8))
  header:add(f_ethertype, tvb(10, 2))
  local inner = tvb(10, 2):uint()
  pinfo.cols.info = string.format("Dropped frame: %d bytes, EtherType 0x%04x", tvb(0, 2):le_uint(), inner)
  if tvb:len() > HEADER_LENGTH then
    ethertypes:try(inner, tvb(HEADER_LENGTH):tvb(), pinfo, tree)
  end
  return tvb:len()
end

ethertypes:add(MOD_ETHERTYPE, mod)

-- Report datagrams ----------------------------------------------------------------------------------------

local report = Proto("modreport", "Mirror-on-Drop report")
local types = { [0] = "START", [1] = "STOP" }
local r_type = ProtoField.uint8("modreport.type", "Report type", base.DEC, types)
local r_timestamp = ProtoField.uint64("modreport.timestamp", "Drop timestamp", base.DEC)
local r_reason = ProtoField.bytes("modreport.reason", "Drop reason")
local r_word = ProtoField.uint32("modreport.reason_word", "Reason word", base.HEX)
local r_datasize = ProtoField.uint8("modreport.datasize", "Sample size", base.DEC)
local r_sample = ProtoField.bytes("modreport.sample", "Sample of the dropped frame")
report.fields = { r_type, r_timestamp, r_reason, r_word, r_datasize, r_sample }
local e_size = ProtoExpert.new("modreport.size", "Sample size above 80 bytes or beyond the datagram",
  expert.group.MALFORMED, expert.severity.ERROR)
local e_short_report = ProtoExpert.new("modreport.short", "Report cut short", expert.group.MALFORMED,
  expert.severity.ERROR)
report.experts = { e_size, e_short_report }
report.prefs.port = Pref.uint("UDP port", 6343, "The UDP port the collectors receive reports on")

local ethernet = Dissector.get("eth_withoutfcs")

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
  local reason = root:add(r_reason, tvb(9, 16))
  for i = 0, 3 do reason:add(r_word, tvb(9 + 4 * i, 4)) end
  local size_item = root:add(r_datasize, tvb(25, 1))
  local size = tvb(25, 1):uint()
  local type_name = types[tvb(0, 1):uint()] or "unknown"
  local info = string.format("%s report, timestamp %s, sample %d bytes", type_name,
    tostring(tvb(1, 8):uint64()), size)
  pinfo.cols.info = info
  if size > SAMPLE_MAX or REPORT_HEADER_LENGTH + size > tvb:len() then
    size_item:add_proto_expert_info(e_size)
    return tvb:len()
  end
  if size > 0 then
    root:add(r_sample, tvb(REPORT_HEADER_LENGTH, size))
    -- The sample's own Ethernet, IP and port addresses would take over the packet list's columns; the
    -- list should keep showing the report's sender and collector, so they are put back afterwards.
    local saved = { pinfo.src, pinfo.dst, pinfo.net_src, pinfo.net_dst, pinfo.dl_src, pinfo.dl_dst,
      pinfo.src_port, pinfo.dst_port }
    ethernet:call(tvb(REPORT_HEADER_LENGTH, size):tvb(), pinfo, tree)
    pinfo.src, pinfo.dst, pinfo.net_src, pinfo.net_dst, pinfo.dl_src, pinfo.dl_dst, pinfo.src_port,
      pinfo.dst_port = table.unpack(saved)
    pinfo.cols.protocol = "MODREPORT"
    -- Dissectors of the sample may fence their notes into the column (a TCP sample seen twice, in a START
    -- and its STOP, is marked as a retransmission); those notes are the sample's, not the report's.
    pinfo.cols.info:clear_fence()
    pinfo.cols.info = info
  end
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
