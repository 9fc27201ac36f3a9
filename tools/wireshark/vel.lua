-- vel.lua: Wireshark and tshark dissectors for vel's framing protocols over TCP, one protocol
-- each: oxlv1, oxlv2, oxlv5 and holm.
--
-- Loading:  tshark -X lua_script:tools/wireshark/vel.lua -o oxlv1.ports:7000 -r capture.pcap
--           wireshark -X lua_script:tools/wireshark/vel.lua ...
--           or copy this file into ~/.local/lib/wireshark/plugins/ to have it loaded always.
-- Ports:    no port is claimed by default: each protocol has a "TCP ports" preference, a range
--           such as oxlv1.ports:7000-7010, and each is offered by Decode As
--           (tshark -d tcp.port==7000,oxlv1).
--
-- Each frame shows every header field under its name, the bits of the flag bytes under their
-- byte, and the body; a compressed body that is not encrypted is inflated into a new data source
-- ("Inflated OXLv2 body", "Inflated HOLM body"). A header that the library's receiver refuses gets
-- an expert warning naming the status its recvMessage returns, also given as the field
-- <protocol>.status; the receiver then closes the connection, so what follows in that direction
-- is shown as not read (<protocol>.unread).
--
-- Limits that are not on the wire: the "Maximum message size" preference of each protocol stands
-- for the maxMessageSize the receiver was built with (default 16777216, velcat's); the library
-- also never takes a body above its largest buffer, 64 MiB.
--
-- Reassembly: dissect_tcp_pdus cuts each direction into frames, so a frame spread over many
-- segments, and many frames in one segment, are each shown once and whole (TCP's "Allow
-- subdissector to reassemble TCP streams" preference, on by default, must stay on).
--
-- State: what a receiver accepts can depend on earlier frames of its connection (a side that
-- refused a header reads nothing more; a HOLM side accepts a key only while it holds none). The
-- first pass over a capture follows each connection in order and remembers, per frame, what it
-- decided (keyed by frame number and the frame's offset in its data source), so that later
-- passes, and a click on any frame in Wireshark, show the same. HOLM sessions are followed from
-- each connection's first frame, where neither side holds a key; a capture started in the middle
-- of a secure session is read with holm.from_start:FALSE, which leaves session fields unjudged
-- until a key or a reset has been seen.

local MAX_BUFFER = 67108864 -- the library's largest buffer: no body is ever larger

local STATUS_NAMES = {
    [1] = "kVELErr_Alloc",
    [143] = "kVELErr_BadStreamHeader",
    [144] = "kVELErr_MessageTooBig",
    [146] = "kVELErr_Uncompression",
}

local function statusText(code)
    return string.format("%s (%d)", STATUS_NAMES[code], code)
end

local function roundUp8(length)
    return math.floor((length + 7) / 8) * 8
end

-- zlib's compressBound: the largest stream that a body of `length` bytes compresses to.
local function zlibBound(length)
    return length + math.floor(length / 4096) + math.floor(length / 16384) +
               math.floor(length / 33554432) + 13
end

local tcpPorts = DissectorTable.get("tcp.port")

-------------------------------------------------------------------------------------------------
-- What the four protocols share: registration, preferences, connection state, the per-frame
-- memory of the first pass, and the cutting of the stream into frames.
-------------------------------------------------------------------------------------------------

-- A refusal: the status the receiver returns, the expert info that explains it, and its text.
local function refuse(code, expert, text)
    return {status = code, expert = expert, text = text .. ": the receiver refuses it with " ..
                statusText(code)}
end

-- The expert infos of a protocol named `name`: "Body cannot be inflated" when `inflates`, then
-- one warning per reason a header is refused, each under its reason as key.
local function refusalExperts(name, inflates, reasons)
    local e = {}
    if inflates then
        e.not_inflated = ProtoExpert.new(name .. ".not_inflated", "Body cannot be inflated",
                                         expert.group.PROTOCOL, expert.severity.WARN)
    end
    for _, reason in ipairs(reasons) do
        e[reason] = ProtoExpert.new(name .. "." .. reason, "Refused header (" .. reason .. ")",
                                    expert.group.PROTOCOL, expert.severity.WARN)
    end
    return e
end

-- Creates one protocol. `def` gives:
--   name, title, headerSize   the filter name, the display name, the bytes that hold the length
--   fields, experts           its ProtoFields and ProtoExperts, by key
--   hasMaxSize                whether the receiver has a maximum message size
--   newSide(fw)               the state of one side of a connection at its start
--   extraPrefs(proto)         registers the protocol's own preferences (optional)
--   judge(fw, tvb, receiver)  from the header at the start of `tvb`: {length = frame length} or
--                             a refusal
--   follow(fw, tvb, pinfo, verdict, connection, sender, receiver, senderName)
--                             first pass only: updates the connection for this frame and returns
--                             what the display needs beyond the bytes (a table)
--   show(fw, tvb, pinfo, tree, verdict, view)   adds the frame's items under `tree`
local function newFraming(def)
    local proto = Proto(def.name, def.title)
    local fw = {proto = proto, def = def, connections = {}, frames = {}, ports = ""}
    local f = def.fields
    f.status = ProtoField.uint32(def.name .. ".status", "Receiver's status", base.DEC,
                                 STATUS_NAMES)
    f.unread = ProtoField.bytes(def.name .. ".unread", "Not read by the receiver")
    local e = def.experts
    e.unread = ProtoExpert.new(def.name .. ".unread.expert", "Not read by the receiver",
                               expert.group.SEQUENCE, expert.severity.NOTE)
    local fieldList, expertList = {}, {}
    for _, field in pairs(f) do fieldList[#fieldList + 1] = field end
    for _, info in pairs(e) do expertList[#expertList + 1] = info end
    proto.fields = fieldList
    proto.experts = expertList
    fw.f, fw.e = f, e

    proto.prefs.ports = Pref.range("TCP ports", "", "TCP ports of " .. def.title ..
                                       " servers (a range such as 7000-7010,8000)", 65535)
    if def.extraPrefs then def.extraPrefs(proto) end
    if def.hasMaxSize then
        proto.prefs.max_size = Pref.uint("Maximum message size", 16777216,
                                         "The receiver's maximum message size (velcat's -m)")
    end

    function fw.maxSize()
        return math.min(proto.prefs.max_size, MAX_BUFFER)
    end

    function proto.prefs_changed()
        if fw.ports ~= "" then tcpPorts:remove(fw.ports, proto) end
        fw.ports = tostring(proto.prefs.ports)
        if fw.ports ~= "" then tcpPorts:add(fw.ports, proto) end
    end

    function proto.init()
        fw.connections = {}
        fw.frames = {}
    end

    -- The connection of this segment, its sending and receiving sides, and the sender's name.
    local function connectionOf(pinfo)
        local src = tostring(pinfo.src) .. ":" .. tostring(pinfo.src_port)
        local dst = tostring(pinfo.dst) .. ":" .. tostring(pinfo.dst_port)
        local key = src < dst and (src .. " " .. dst) or (dst .. " " .. src)
        local connection = fw.connections[key]
        if connection == nil then
            connection = {sides = {}}
            fw.connections[key] = connection
        end
        for _, side in ipairs({src, dst}) do
            if connection.sides[side] == nil then connection.sides[side] = def.newSide(fw) end
        end
        return connection, connection.sides[src], connection.sides[dst], src
    end

    -- Frames are remembered by frame number and raw offset: a segment's own bytes sit at their
    -- offset in the frame, a reassembled frame at 0 of its own data source, which is unique
    -- within one packet.
    local function frameKey(pinfo, tvb, offset)
        return tostring(pinfo.number) .. ":" .. tostring(tvb:offset() + offset)
    end

    local function getLength(tvb, pinfo, offset)
        local key = frameKey(pinfo, tvb, offset)
        local remembered = fw.frames[key]
        if remembered == nil then
            local _, _, receiver = connectionOf(pinfo)
            remembered = {verdict = def.judge(fw, tvb:range(offset):tvb(), receiver)}
            fw.frames[key] = remembered
        end
        if remembered.verdict.status ~= nil then
            return tvb:len() - offset -- refused: the receiver reads nothing after the header
        end
        return remembered.verdict.length
    end

    local function dissectFrame(tvb, pinfo, tree)
        local key = frameKey(pinfo, tvb, 0)
        local remembered = fw.frames[key]
        local connection, sender, receiver, senderName = connectionOf(pinfo)
        if remembered == nil then
            remembered = {verdict = def.judge(fw, tvb, receiver)}
            fw.frames[key] = remembered
        end
        if remembered.view == nil then
            remembered.view = def.follow(fw, tvb, pinfo, remembered.verdict, connection, sender,
                                          receiver, senderName) or {}
            if remembered.verdict.status ~= nil and receiver.refused == nil then
                receiver.refused = {frame = pinfo.number, offset = tvb:offset()}
            end
        end
        local verdict, view = remembered.verdict, remembered.view
        local item = tree:add(proto, tvb:range())
        def.show(fw, tvb, pinfo, item, verdict, view)
        if verdict.status ~= nil then
            item:add(f.status, tvb:range(0, def.headerSize), verdict.status):set_generated()
            item:add_proto_expert_info(verdict.expert, verdict.text)
            local header = verdict.consumed or def.headerSize
            if tvb:len() > header then
                item:add(f.unread, tvb:range(header))
            end
        end
        local info = tostring(pinfo.cols.info)
        local summary = view.summary or verdict.summary or ""
        if verdict.status ~= nil then
            summary = summary .. " [refused: " .. STATUS_NAMES[verdict.status] .. "]"
        end
        if info:find(def.title, 1, true) == 1 then
            pinfo.cols.info:append(", " .. summary)
        else
            pinfo.cols.info:set(def.title .. " " .. summary)
        end
        return tvb:len()
    end

    function proto.dissector(tvb, pinfo, tree)
        pinfo.cols.protocol:set(def.title)
        local _, _, receiver = connectionOf(pinfo)
        local refused = receiver.refused
        if refused ~= nil and
            (pinfo.number > refused.frame or
                (pinfo.number == refused.frame and tvb:offset() > refused.offset)) then
            local item = tree:add(proto, tvb:range())
            item:add(f.unread, tvb:range())
            item:add_proto_expert_info(e.unread, string.format(
                "Not read: the receiver refused a header in frame %d and closes the connection",
                refused.frame))
            pinfo.cols.info:set(def.title .. " not read (" .. tvb:len() .. " bytes)")
            return tvb:len()
        end
        dissect_tcp_pdus(tvb, tree, def.headerSize, getLength, dissectFrame)
        return tvb:len()
    end

    tcpPorts:add_for_decode_as(proto)
    return fw
end

-- Shows a body: opaque bytes, and, when `inflate` is given, its inflated form in a new data
-- source named `sourceName`. Returns the inflated range, or nil.
local function showBody(fw, tvb, item, offset, inflate, sourceName)
    local length = tvb:len() - offset
    if length <= 0 then return nil end
    item:add(fw.f.body, tvb:range(offset, length))
    if not inflate then return nil end
    local inflated = tvb:range(offset, length):uncompress(sourceName)
    if inflated ~= nil then
        item:add(fw.f.inflated, inflated)
        item:add(fw.f.inflated_length, inflated, inflated:len()):set_generated()
    end
    return inflated
end

-- The uncompress step of a compressed body that the receiver has read: `announced` is the
-- uncompressed length the frame gives. Adds the status and the expert warning when zlib fails
-- there.
local function checkInflated(fw, tvb, item, inflated, announced)
    local text
    if inflated == nil then
        text = "The body is not a zlib stream"
    elseif inflated:len() > announced then
        text = string.format("The body inflates to %d bytes, more than the %d announced",
                             inflated:len(), announced)
    else
        return
    end
    item:add(fw.f.status, tvb:range(), 146):set_generated()
    item:add_proto_expert_info(fw.e.not_inflated,
                               text .. ": the receiver's uncompress fails with " .. statusText(146))
end

local function plainSide() return {} end

-------------------------------------------------------------------------------------------------
-- OXLv1: total length, its complement, marker 32, version '1', a reserved byte, then the body.
-------------------------------------------------------------------------------------------------

local VERSION_CHARS = {[0x31] = "'1'", [0x32] = "'2'"}

do
    local name = "oxlv1"
    local f = {
        total_length = ProtoField.uint32(name .. ".total_length", "Total length", base.DEC),
        length_check = ProtoField.uint32(name .. ".length_check", "Length check", base.HEX),
        marker = ProtoField.uint16(name .. ".marker", "Header marker", base.DEC),
        version = ProtoField.uint8(name .. ".version", "Version", base.HEX, VERSION_CHARS),
        reserved = ProtoField.uint8(name .. ".reserved", "Reserved", base.HEX),
        body_length = ProtoField.uint32(name .. ".body_length", "Body length", base.DEC),
        body = ProtoField.bytes(name .. ".body", "Body"),
    }
    local e = refusalExperts(name, false, {"bad_check", "bad_marker", "bad_version",
                                            "short_total", "too_big", "no_buffer"})

    newFraming({
        name = name, title = "OXLv1", headerSize = 12, fields = f, experts = e,
        hasMaxSize = true, newSide = plainSide,
        judge = function(fw, tvb, _)
            local total = tvb:range(0, 4):uint()
            local check = tvb:range(4, 4):uint()
            local marker = tvb:range(8, 2):uint()
            local version = tvb:range(10, 1):uint()
            if total + check ~= 0xFFFFFFFF then
                return refuse(143, e.bad_check, string.format(
                    "Length check 0x%08x is not the complement of the total length %d", check,
                    total))
            elseif marker ~= 32 then
                return refuse(143, e.bad_marker,
                              string.format("Header marker %d is not 32", marker))
            elseif version ~= 0x31 then
                return refuse(143, e.bad_version,
                              string.format("Version 0x%02x is not '1'", version))
            elseif total < 12 then
                return refuse(144, e.short_total, string.format(
                    "Total length %d is below the 12-byte header: the body length wraps round",
                    total))
            elseif total - 12 > fw.proto.prefs.max_size then
                return refuse(144, e.too_big, string.format(
                    "Body length %d is above the maximum message size %d", total - 12,
                    fw.proto.prefs.max_size))
            elseif total - 12 > MAX_BUFFER then
                return refuse(1, e.no_buffer, string.format(
                    "Body length %d is above the largest buffer", total - 12))
            end
            return {length = total}
        end,
        follow = function() return {} end,
        show = function(fw, tvb, _, item, verdict, _)
            item:add(f.total_length, tvb:range(0, 4))
            item:add(f.length_check, tvb:range(4, 4))
            item:add(f.marker, tvb:range(8, 2))
            item:add(f.version, tvb:range(10, 1))
            item:add(f.reserved, tvb:range(11, 1))
            if verdict.status == nil then
                item:add(f.body_length, tvb:range(0, 4), tvb:len() - 12):set_generated()
                showBody(fw, tvb, item, 12)
                verdict.summary = string.format("body %d bytes", tvb:len() - 12)
            else
                verdict.summary = "header"
            end
        end,
    })
end

-------------------------------------------------------------------------------------------------
-- OXLv2: the OXLv1 length pair, extension length H, version '2', compression flag, H - 4 RSCV
-- bytes, with the flag 'C' an 8-byte compression record, then the body.
-------------------------------------------------------------------------------------------------

do
    local name = "oxlv2"
    local f = {
        total_length = ProtoField.uint32(name .. ".total_length", "Total length", base.DEC),
        length_check = ProtoField.uint32(name .. ".length_check", "Length check", base.HEX),
        extension_length = ProtoField.uint16(name .. ".extension_length", "Extension length",
                                             base.DEC),
        version = ProtoField.uint8(name .. ".version", "Version", base.HEX, VERSION_CHARS),
        compression = ProtoField.uint8(name .. ".compression", "Compression flag", base.HEX,
                                       {[0x43] = "'C': compressed", [0] = "plain"}),
        rscv = ProtoField.bytes(name .. ".rscv", "RSCV"),
        record_tag = ProtoField.uint32(name .. ".record_tag", "Compression record tag", base.DEC),
        uncompressed_length = ProtoField.uint32(name .. ".uncompressed_length",
                                                "Uncompressed length", base.DEC),
        body_length = ProtoField.uint32(name .. ".body_length", "Body length", base.DEC),
        body = ProtoField.bytes(name .. ".body", "Body"),
        inflated = ProtoField.bytes(name .. ".inflated", "Inflated body"),
        inflated_length = ProtoField.uint32(name .. ".inflated_length", "Inflated length",
                                            base.DEC),
    }
    local e = refusalExperts(name, true, {"bad_check", "bad_extension", "bad_version",
                                          "short_total", "too_big", "record_too_big", "no_buffer"})

    newFraming({
        name = name, title = "OXLv2", headerSize = 12, fields = f, experts = e,
        hasMaxSize = true, newSide = plainSide,
        judge = function(fw, tvb, _)
            local total = tvb:range(0, 4):uint()
            local check = tvb:range(4, 4):uint()
            local extension = tvb:range(8, 2):uint()
            local version = tvb:range(10, 1):uint()
            local compressed = tvb:range(11, 1):uint() == 0x43
            local maxSize = fw.proto.prefs.max_size
            if total + check ~= 0xFFFFFFFF then
                return refuse(143, e.bad_check, string.format(
                    "Length check 0x%08x is not the complement of the total length %d", check,
                    total))
            elseif extension < 4 or extension > 259 then
                return refuse(143, e.bad_extension, string.format(
                    "Extension length %d is outside 4 to 259", extension))
            elseif version ~= 0x32 then
                return refuse(143, e.bad_version,
                              string.format("Version 0x%02x is not '2'", version))
            elseif total < extension + 8 then
                return refuse(143, e.short_total, string.format(
                    "Total length %d is below the header and %d RSCV bytes", total, extension - 4))
            end
            local overhead = extension + 8 + (compressed and 8 or 0)
            if total < overhead or total - overhead > maxSize then
                return refuse(144, e.too_big, string.format(
                    "Total length %d leaves a body of %d bytes, outside 0 to the maximum message"
                        .. " size %d", total, total - overhead, maxSize))
            elseif total - overhead > MAX_BUFFER then
                return refuse(1, e.no_buffer, string.format(
                    "Body length %d is above the largest buffer", total - overhead))
            end
            return {length = total}
        end,
        follow = function(fw, tvb, _, verdict)
            -- The uncompressed length is judged once the record has been read, after the header.
            if verdict.status == nil and tvb:range(11, 1):uint() == 0x43 then
                local at = 8 + tvb:range(8, 2):uint()
                local announced = tvb:range(at + 4, 4):uint()
                if announced > fw.proto.prefs.max_size then
                    local refusal = refuse(144, e.record_too_big, string.format(
                        "Uncompressed length %d is above the maximum message size %d", announced,
                        fw.proto.prefs.max_size))
                    for k, v in pairs(refusal) do verdict[k] = v end
                    verdict.consumed = at + 8
                end
            end
            return {}
        end,
        show = function(fw, tvb, _, item, verdict, _)
            item:add(f.total_length, tvb:range(0, 4))
            item:add(f.length_check, tvb:range(4, 4))
            item:add(f.extension_length, tvb:range(8, 2))
            item:add(f.version, tvb:range(10, 1))
            item:add(f.compression, tvb:range(11, 1))
            verdict.summary = "header"
            if verdict.status ~= nil and verdict.consumed == nil then return end
            local extension = tvb:range(8, 2):uint()
            local at = 12
            if extension > 4 then
                item:add(f.rscv, tvb:range(at, extension - 4))
                at = at + extension - 4
            end
            local compressed = tvb:range(11, 1):uint() == 0x43
            local announced
            if compressed then
                item:add_le(f.record_tag, tvb:range(at, 4))
                item:add(f.uncompressed_length, tvb:range(at + 4, 4))
                announced = tvb:range(at + 4, 4):uint()
                at = at + 8
            end
            if verdict.status ~= nil then return end
            item:add(f.body_length, tvb:range(0, 4), tvb:len() - at):set_generated()
            local inflated = showBody(fw, tvb, item, at, compressed, "Inflated OXLv2 body")
            if compressed then checkInflated(fw, tvb, item, inflated, announced) end
            verdict.summary = string.format("body %d bytes%s", tvb:len() - at,
                compressed and string.format(", compressed from %d", announced) or "")
        end,
    })
end

-------------------------------------------------------------------------------------------------
-- OXLv5: a 2-byte body length, then the body. Nothing in it can be refused.
-------------------------------------------------------------------------------------------------

do
    local name = "oxlv5"
    local f = {
        length = ProtoField.uint16(name .. ".length", "Length", base.DEC),
        body = ProtoField.bytes(name .. ".body", "Body"),
    }
    newFraming({
        name = name, title = "OXLv5", headerSize = 2, fields = f, experts = {},
        hasMaxSize = false, newSide = plainSide,
        judge = function(_, tvb, _) return {length = 2 + tvb:range(0, 2):uint()} end,
        follow = function() return {} end,
        show = function(fw, tvb, _, item, verdict, _)
            item:add(f.length, tvb:range(0, 2))
            showBody(fw, tvb, item, 2)
            verdict.summary = string.format("body %d bytes", tvb:len() - 2)
        end,
    })
end

-------------------------------------------------------------------------------------------------
-- HOLM: a checked 28-byte header, then RSCV bytes, the session field (a 16-byte key or a 4-byte
-- session ID), SSCV bytes and the body, compressed and then encrypted as the header says.
-------------------------------------------------------------------------------------------------

do
    local name = "holm"
    local ALGORITHMS = {[0] = "stored", [1] = "fastest", [2] = "default", [9] = "best"}
    local f = {
        magic = ProtoField.uint16(name .. ".magic", "Magic", base.HEX, {[0x484F] = "\"HO\""}),
        version = ProtoField.uint16(name .. ".version", "Version", base.HEX),
        total_length = ProtoField.uint32(name .. ".total_length", "Total length", base.DEC),
        plain_size = ProtoField.uint32(name .. ".plain_size", "Plain size", base.DEC),
        check_word = ProtoField.uint16(name .. ".check_word", "Check word", base.HEX),
        reserved = ProtoField.bytes(name .. ".reserved", "Reserved"),
        security = ProtoField.uint8(name .. ".security", "Security", base.HEX),
        security_high = ProtoField.uint8(name .. ".security.reserved", "Reserved bit", base.DEC,
                                         nil, 0x80),
        secure = ProtoField.bool(name .. ".security.secure", "Secure", 8, nil, 0x40),
        cipher = ProtoField.uint8(name .. ".security.cipher", "Cipher", base.DEC, nil, 0x3F),
        session = ProtoField.uint8(name .. ".session", "Session", base.HEX),
        session_level = ProtoField.uint8(name .. ".session.level", "Session level", base.DEC,
                                         nil, 0xFC),
        key_sent = ProtoField.bool(name .. ".session.key_sent", "Key sent", 8, nil, 0x02),
        reset = ProtoField.bool(name .. ".session.reset", "Reset", 8, nil, 0x01),
        compression = ProtoField.uint8(name .. ".compression", "Compression", base.HEX),
        initiator = ProtoField.bool(name .. ".compression.initiator", "Initiator", 8, nil, 0x80),
        compressed = ProtoField.bool(name .. ".compression.compressed", "Compressed", 8, nil, 0x40),
        algorithm = ProtoField.uint8(name .. ".compression.algorithm", "Algorithm (zlib level)",
                                     base.DEC, ALGORITHMS, 0x3F),
        rscv_length = ProtoField.uint8(name .. ".rscv_length", "RSCV length", base.DEC),
        field_length = ProtoField.uint8(name .. ".field_length", "Session field length", base.DEC,
                                        {[0] = "none", [4] = "session ID", [16] = "session key"}),
        sscv_length = ProtoField.uint8(name .. ".sscv_length", "SSCV length", base.DEC),
        rscv = ProtoField.bytes(name .. ".rscv", "RSCV"),
        session_key = ProtoField.bytes(name .. ".session_key", "Session key"),
        session_id = ProtoField.uint32(name .. ".session_id", "Session ID", base.DEC),
        sscv = ProtoField.bytes(name .. ".sscv", "SSCV"),
        body_length = ProtoField.uint32(name .. ".body_length", "Body length", base.DEC),
        body = ProtoField.bytes(name .. ".body", "Body"),
        encrypted = ProtoField.bytes(name .. ".encrypted", "Encrypted body"),
        inflated = ProtoField.bytes(name .. ".inflated", "Inflated body"),
        inflated_length = ProtoField.uint32(name .. ".inflated_length", "Inflated length",
                                            base.DEC),
        direction = ProtoField.string(name .. ".direction", "Direction"),
        session_number = ProtoField.uint32(name .. ".session_number",
                                           "Session of this connection", base.DEC),
        key_frame = ProtoField.framenum(name .. ".key_frame", "Session key sent in frame"),
    }
    local e = refusalExperts(name, true, {"bad_check", "bad_version", "bad_magic", "too_big",
                                          "bad_field", "no_key", "short_total", "bad_padding",
                                          "length_mismatch", "too_long"})
    e.key_exchange = ProtoExpert.new(name .. ".key_exchange", "Key exchange",
                                     expert.group.SECURITY, expert.severity.CHAT)
    e.session_reset = ProtoExpert.new(name .. ".session_reset", "Session closed",
                                      expert.group.SECURITY, expert.severity.CHAT)

    local function header(tvb)
        local h = {}
        h.magic = tvb:range(0, 2):uint()
        h.version = tvb:range(2, 2):uint()
        h.total = tvb:range(4, 4):uint()
        h.plain = tvb:range(8, 4):uint()
        h.xor = 0
        for i = 0, 6 do h.xor = bit.bxor(h.xor, tvb:range(2 * i, 2):uint()) end
        local security, session, compression = tvb:range(16, 1):uint(), tvb:range(17, 1):uint(),
                                               tvb:range(18, 1):uint()
        h.secure = bit.band(security, 0x40) ~= 0
        h.reset = bit.band(session, 0x01) ~= 0
        h.initiator = bit.band(compression, 0x80) ~= 0
        h.compressed = bit.band(compression, 0x40) ~= 0
        h.rscv = tvb:range(20, 1):uint()
        h.field = tvb:range(21, 1):uint()
        h.sscv = tvb:range(22, 1):uint()
        h.fixed = 28 + h.rscv + h.field + h.sscv
        return h
    end

    newFraming({
        name = name, title = "HOLM", headerSize = 28, fields = f, experts = e, hasMaxSize = true,
        extraPrefs = function(proto)
            proto.prefs.from_start = Pref.bool("Captures hold each connection from its start", true,
                "Judge session fields from a connection's first frame, where neither side holds a"
                    .. " key. Turn off for a capture started in the middle of a secure session:"
                    .. " session fields are then judged once a key or a reset has been seen.")
        end,
        -- key: whether this side holds a session key (nil: not known).
        newSide = function(fw)
            if fw.proto.prefs.from_start then return {key = false} end
            return {}
        end,
        judge = function(fw, tvb, receiver)
            local h = header(tvb)
            if h.xor ~= 0 then
                return refuse(143, e.bad_check, string.format(
                    "Check word 0x%04x does not make the first seven words XOR to 0",
                    tvb:range(12, 2):uint()))
            elseif h.version ~= 0x0100 then
                return refuse(143, e.bad_version,
                              string.format("Version 0x%04x is not 0x0100", h.version))
            elseif h.magic ~= 0x484F then
                return refuse(143, e.bad_magic,
                              string.format("Magic 0x%04x is not \"HO\"", h.magic))
            elseif h.plain > fw.maxSize() then
                return refuse(144, e.too_big, string.format(
                    "Plain size %d is above the maximum message size %d", h.plain, fw.maxSize()))
            end
            -- The reset bit drops the receiver's key before its session field is judged.
            local key = receiver.key
            if h.reset then key = false end
            if key ~= nil and h.field ~= 0 and h.field ~= (key and 4 or 16) then
                return refuse(143, e.bad_field, string.format(
                    "Session field of %d bytes to a side that %s", h.field,
                    key and "holds a key (it takes a 4-byte session ID)" or
                        "holds no key (it takes a 16-byte key)"))
            elseif key == false and h.secure and h.field == 0 then
                return refuse(143, e.no_key, "Secure frame without a key to a side that holds none")
            elseif h.total < h.fixed then
                return refuse(143, e.short_total, string.format(
                    "Total length %d is below the header and fields, %d", h.total, h.fixed))
            end
            local body = h.total - h.fixed
            if h.secure and body % 8 ~= 0 then
                return refuse(143, e.bad_padding, string.format(
                    "Encrypted body of %d bytes is not whole 8-byte blocks", body))
            elseif not h.compressed and body ~= (h.secure and roundUp8(h.plain) or h.plain) then
                return refuse(143, e.length_mismatch, string.format(
                    "Body of %d bytes does not match the plain size %d%s", body, h.plain,
                    h.secure and " (rounded up to 8)" or ""))
            elseif h.compressed and body > roundUp8(zlibBound(fw.maxSize())) then
                return refuse(143, e.too_long, string.format(
                    "Compressed body of %d bytes is above what the maximum message size"
                        .. " compresses to", body))
            end
            return {length = h.total}
        end,
        follow = function(_, tvb, pinfo, verdict, connection, sender, receiver, senderName)
            local h = header(tvb)
            local view = {}
            -- The sender: a reset means it closed its session before this frame; a key, that
            -- it opened one; a session ID, that it has one.
            if h.reset then sender.key = false end
            if h.field == 16 or h.field == 4 then sender.key = true end
            if h.field == 16 then
                connection.initiator = senderName
                connection.keyFrame = pinfo.number
                connection.sessions = (connection.sessions or 0) + 1
                view.keyExchange = true
            end
            -- The receiver, as far as it read.
            if verdict.status == nil or (verdict.status == 143 and h.xor == 0 and
                                         h.version == 0x0100 and h.magic == 0x484F) then
                if h.reset then receiver.key = false end
            end
            if verdict.status == nil and h.field == 16 then receiver.key = true end
            if connection.initiator ~= nil then
                view.direction = connection.initiator == senderName and
                                     "initiator to responder" or "responder to initiator"
            elseif h.initiator then
                view.direction = "initiator to responder"
            end
            if h.secure or h.field ~= 0 then
                view.session = connection.sessions
                view.keyFrame = connection.keyFrame
            end
            return view
        end,
        show = function(fw, tvb, _, item, verdict, view)
            local h = header(tvb)
            item:add(f.magic, tvb:range(0, 2))
            item:add(f.version, tvb:range(2, 2))
            item:add(f.total_length, tvb:range(4, 4))
            item:add(f.plain_size, tvb:range(8, 4))
            item:add(f.check_word, tvb:range(12, 2))
            item:add(f.reserved, tvb:range(14, 2))
            local security = item:add(f.security, tvb:range(16, 1))
            security:add(f.security_high, tvb:range(16, 1))
            security:add(f.secure, tvb:range(16, 1))
            security:add(f.cipher, tvb:range(16, 1))
            local session = item:add(f.session, tvb:range(17, 1))
            session:add(f.session_level, tvb:range(17, 1))
            session:add(f.key_sent, tvb:range(17, 1))
            session:add(f.reset, tvb:range(17, 1))
            local compression = item:add(f.compression, tvb:range(18, 1))
            compression:add(f.initiator, tvb:range(18, 1))
            compression:add(f.compressed, tvb:range(18, 1))
            compression:add(f.algorithm, tvb:range(18, 1))
            item:add(f.reserved, tvb:range(19, 1))
            item:add(f.rscv_length, tvb:range(20, 1))
            item:add(f.field_length, tvb:range(21, 1))
            item:add(f.sscv_length, tvb:range(22, 1))
            item:add(f.reserved, tvb:range(23, 5))
            if view.direction ~= nil then
                item:add(f.direction, tvb:range(0, 28), view.direction):set_generated()
            end
            verdict.summary = "header"
            if h.reset then
                item:add_proto_expert_info(e.session_reset,
                    "Reset: the sender closed its secure session, and the receiver closes its own")
            end
            if verdict.status ~= nil then return end
            local at = 28
            if h.rscv > 0 then
                item:add(f.rscv, tvb:range(at, h.rscv))
                at = at + h.rscv
            end
            if h.field == 16 then
                item:add(f.session_key, tvb:range(at, 16))
                if view.keyExchange then
                    item:add_proto_expert_info(e.key_exchange, "Key exchange: the initiator"
                        .. " sends its session key; later frames carry a session ID")
                end
            elseif h.field == 4 then
                -- The ID travels least significant byte first.
                item:add_le(f.session_id, tvb:range(at, 4))
            end
            if view.session ~= nil then
                item:add(f.session_number, tvb:range(21, 1), view.session):set_generated()
            end
            if view.keyFrame ~= nil then
                item:add(f.key_frame, tvb:range(21, 1), view.keyFrame):set_generated()
            end
            at = at + h.field
            if h.sscv > 0 then
                item:add(f.sscv, tvb:range(at, h.sscv))
                at = at + h.sscv
            end
            item:add(f.body_length, tvb:range(4, 4), tvb:len() - at):set_generated()
            if h.secure then
                if tvb:len() > at then item:add(f.encrypted, tvb:range(at)) end
            else
                local inflated = showBody(fw, tvb, item, at, h.compressed, "Inflated HOLM body")
                if h.compressed then checkInflated(fw, tvb, item, inflated, h.plain) end
            end
            verdict.summary = string.format("%s%s body %d bytes, plain %d",
                h.field == 16 and "key, " or "", h.secure and "encrypted" or
                    (h.compressed and "compressed" or "plain"), tvb:len() - at, h.plain)
        end,
    })
end
