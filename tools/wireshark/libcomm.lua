-- Wireshark dissector for libComm_Module's command and reply frames.
--
-- Load it with `tshark -X lua_script:libcomm.lua ...` or copy it into the
-- personal Lua plugin folder. Written for Wireshark 4.0 and later (Lua 5.2:
-- bit32, no integer division operator).
--
-- What it reads:
--   * UDP datagrams on the ports of the "UDP ports" preference, and any UDP
--     datagram that starts with "[A" or "[R" (with the other datagrams between
--     the same two endpoints after that): command frames, in pieces of at most
--     540 bytes, and the datagrams the library receives, which it dispatches as
--     the library's reply parser does;
--   * commctl --capture files of the serial line (link type USER0) and of USB
--     HID reports (USER1), whose packets start with a 4-byte header: byte 0
--     the direction (0 written by the library, 1 read by it), byte 1 the link
--     byte (1 serial, 2 USB), bytes 2 and 3 zero.
--
-- The library keeps state from one datagram or read to the next (the held
-- reply and its block data, the serial and USB receive buffers); so does this
-- dissector, in capture order, and it remembers what it found for each packet
-- so that a second look at a packet shows the same.

local libcomm = Proto("libcomm", "libComm_Module protocol")
local libcomm_serial = Proto("libcomm_serial", "libComm_Module serial line capture")
local libcomm_usb = Proto("libcomm_usb", "libComm_Module USB HID capture")

local direction_names = { [0] = "written by the library", [1] = "read by the library" }
local link_names = { [0] = "network", [1] = "serial", [2] = "USB" }

local f = {
    kind = ProtoField.string("libcomm.kind", "Kind"),
    direction = ProtoField.uint8("libcomm.direction", "Direction", base.DEC, direction_names),
    link = ProtoField.uint8("libcomm.link", "Link", base.DEC, link_names),
    report_id = ProtoField.uint8("libcomm.report_id", "Report ID", base.DEC),
    cmd = ProtoField.uint8("libcomm.cmd", "Command byte", base.HEX),
    param = ProtoField.uint8("libcomm.param", "Parameter byte", base.HEX),
    checksum = ProtoField.uint8("libcomm.checksum", "Check byte", base.HEX),
    checksum_computed = ProtoField.uint8("libcomm.checksum.computed", "Check byte computed", base.HEX),
    checksum_status = ProtoField.string("libcomm.checksum.status", "Check byte status"),
    payload = ProtoField.bytes("libcomm.payload", "Payload"),
    payload_length = ProtoField.uint32("libcomm.payload.length", "Payload length"),
    piece = ProtoField.uint32("libcomm.piece", "Piece of a command"),
    pieces = ProtoField.uint32("libcomm.pieces", "Pieces of the command"),
    piece_frame = ProtoField.framenum("libcomm.piece.frame", "Piece in frame"),
    action = ProtoField.string("libcomm.action", "Library action"),
    reject = ProtoField.string("libcomm.reject", "Rejected by the library"),
    held_in = ProtoField.framenum("libcomm.block.held_in", "Held reply in frame"),
    block_expected = ProtoField.int32("libcomm.block.expected", "Block length announced"),
    block_gathered = ProtoField.uint32("libcomm.block.gathered", "Block bytes gathered"),
    block_data = ProtoField.bytes("libcomm.block.data", "Block bytes"),
    block_status = ProtoField.string("libcomm.block.status", "Block status"),
    record = ProtoField.string("libcomm.record", "Record"),
    record_payload = ProtoField.bytes("libcomm.record.payload", "Record payload"),
    record_payload_length = ProtoField.uint32("libcomm.record.payload_length", "Record payload length"),
    garbage = ProtoField.bytes("libcomm.garbage", "Skipped bytes"),
    garbage_length = ProtoField.uint32("libcomm.garbage.length", "Skipped bytes length"),
    data = ProtoField.bytes("libcomm.data", "Bytes"),
}
local field_list = {}
for _, field in pairs(f) do
    field_list[#field_list + 1] = field
end
libcomm.fields = field_list

local expert_bad_check = ProtoExpert.new("libcomm.checksum.bad", "Check byte does not match", expert.group.CHECKSUM,
                                         expert.severity.WARN)
local expert_rejected = ProtoExpert.new("libcomm.rejected", "The library drops this", expert.group.MALFORMED,
                                        expert.severity.NOTE)
libcomm.experts = { expert_bad_check, expert_rejected }

libcomm.prefs.ports = Pref.range("UDP ports", "", "UDP ports of devices (and of the library) to decode as libcomm",
                                 65535)

-- Sizes of the protocol, as the library has them.
local HEADER_SIZE = 19        -- "[" "A"|"R", 16 hex digits, "]"
local MAX_DATAGRAM = 540      -- a command goes out in datagrams of at most this
local SNAPSHOT = 1024         -- bytes a stream turn looks at
local FIXED_BLOCK = 129
local LONG_FIXED_BLOCK = 145
-- The serial worker waits 150 times 4 ms for a block; a block whose last byte
-- arrives later than this after its frame is reported as never complete.
local BLOCK_WAIT_SECONDS = 0.6

------------------------------------------------------------------------------
-- Hex digits

local function is_space(byte)
    return byte == 32 or (byte >= 9 and byte <= 13)
end

local function is_hex_digit(byte)
    return (byte >= 48 and byte <= 57) or (byte >= 65 and byte <= 70) or (byte >= 97 and byte <= 102)
end

-- What Qt's QString::toInt(nullptr, 16) makes of a short ASCII text: blanks
-- around it are ignored, a sign is taken, anything else that is not a hex
-- digit makes it 0 (the conversion failed).
local function qt_to_int16(text)
    local first, last = 1, #text
    while first <= last and is_space(text:byte(first)) do first = first + 1 end
    while last >= first and is_space(text:byte(last)) do last = last - 1 end
    local sign = 1
    if first <= last then
        local c = text:byte(first)
        if c == 43 or c == 45 then -- "+" or "-"
            if c == 45 then sign = -1 end
            first = first + 1
        end
    end
    if first > last then return 0 end
    local value = 0
    for i = first, last do
        local c = text:byte(i)
        if not is_hex_digit(c) then return 0 end
        value = value * 16 + tonumber(string.char(c), 16)
    end
    return sign * value
end

-- The eight numbers of a reply's 16 digits (command, P1..P6, check), as the
-- library reads them: two plain hex digits are their value; other pairs as
-- toInt(16) reads them. A zero byte ends the text, so the pairs behind it read
-- as 0 and the pair it cuts reads as one character. Simplification: the
-- library decodes digits with bytes of 0x80 and above from the local 8-bit
-- encoding, which can shift the later pairs; here such a pair reads as 0.
local function read_pairs(digits)
    local zero = digits:find("\0", 1, true)
    if zero then digits = digits:sub(1, zero - 1) end
    local values = {}
    for i = 0, 7 do
        local pair = digits:sub(2 * i + 1, 2 * i + 2)
        local high = pair:byte(1) or 0
        local low = pair:byte(2) or 0
        if high >= 128 or low >= 128 then
            values[i] = 0
        else
            values[i] = qt_to_int16(pair)
        end
    end
    return values
end

local function byte_of(value)
    return value % 256 -- also for negative values, as a cast to quint8
end

-- Command, P1..P6 and their computed check byte from eight read values.
local function header_fields(values)
    local fields = { cmd = byte_of(values[0]), params = {}, sent = values[7] }
    local sum = fields.cmd
    for i = 1, 6 do
        fields.params[i] = byte_of(values[i])
        sum = sum + fields.params[i]
    end
    fields.computed = sum % 256
    return fields
end

-- The signed 16-bit number of a low and a high byte (combineTwoByte).
local function combine_two_byte(low, high)
    local value = high * 256 + low
    if value >= 32768 then value = value - 65536 end
    return value
end

------------------------------------------------------------------------------
-- Command frames

-- A command header at the start of bytes: "[A", 16 hex digits, "]".
local function parse_command_header(bytes)
    if #bytes < HEADER_SIZE or bytes:sub(1, 2) ~= "[A" or bytes:sub(HEADER_SIZE, HEADER_SIZE) ~= "]" then
        return nil
    end
    local digits = bytes:sub(3, 18)
    if not digits:match("^%x+$") then return nil end
    local values = {}
    for i = 0, 7 do values[i] = tonumber(digits:sub(2 * i + 1, 2 * i + 2), 16) end
    return header_fields(values)
end

local function add_header_fields(tree, tvb, fields, check_good)
    tree:add(f.cmd, tvb(2, 2), fields.cmd)
    for i = 1, 6 do
        tree:add(f.param, tvb(2 + 2 * i, 2), fields.params[i])
    end
    local check = tree:add(f.checksum, tvb(16, 2), byte_of(fields.sent))
    tree:add(f.checksum_computed, tvb(16, 2), fields.computed):set_generated()
    tree:add(f.checksum_status, tvb(16, 2), check_good and "good" or "bad"):set_generated()
    if not check_good then check:add_proto_expert_info(expert_bad_check) end
end

-- A whole command frame in tvb (header and payload).
local function add_command(tree, tvb, label)
    local bytes = tvb:raw()
    local fields = parse_command_header(bytes)
    local item = tree:add(libcomm, tvb(), label or "Command frame")
    item:add(f.kind, "command"):set_generated()
    if not fields then
        item:add(f.data, tvb())
        return nil
    end
    add_header_fields(item, tvb, fields, fields.sent == fields.computed)
    local size = tvb:len() - HEADER_SIZE
    if size > 0 then item:add(f.payload, tvb(HEADER_SIZE, size)) end
    item:add(f.payload_length, size):set_generated()
    return fields
end

local function params_text(fields)
    local texts = {}
    for i = 1, 6 do texts[i] = string.format("%02x", fields.params[i]) end
    return table.concat(texts, " ")
end

------------------------------------------------------------------------------
-- Replies on the network link (DatagramReplyParser)

-- parseReplyDatagram: the reply's fields, or the reason the library rejects
-- the datagram (its own log text). A rejected datagram reads as all zeros.
local function parse_reply_datagram(bytes)
    if #bytes ~= HEADER_SIZE then
        return { reject = "datagram.size()!=19 return" }
    end
    if bytes:sub(1, 2) ~= "[R" then
        return { reject = "no '[' 'R' " }
    end
    local fields = header_fields(read_pairs(bytes:sub(3, 18)))
    -- The sent check byte counts by its low 8 bits here.
    if byte_of(fields.sent) ~= fields.computed then
        fields.reject = "CHKSUM Wrong return"
    end
    return fields
end

local ZERO_FIELDS = { cmd = 0, params = { 0, 0, 0, 0, 0, 0 }, computed = 0 }

-- What the library reads a datagram as: its fields, zeros when rejected.
local function effective_fields(parsed)
    if parsed.reject then return ZERO_FIELDS end
    return parsed
end

-- replyAction: the dispatch by P2 (and P1, P3, P5, P6, the check byte).
local function reply_action(fields)
    local p1, p2, p3, p5, p6 = fields.params[1], fields.params[2], fields.params[3], fields.params[5],
                               fields.params[6]
    if p2 == 0x8B then
        return (p3 == 0x05 or p3 == 0x09) and "hold" or "queue"
    elseif p2 == 0x8E then
        return p3 == 0x27 and "hold" or "queue"
    elseif p2 == 0xF1 then
        return (p3 == 0x40 and p5 == 0 and p6 == 0) and "deliver at once" or "hold"
    elseif p2 == 0x77 then
        return p3 == 0x23 and "hold" or "queue"
    elseif p2 == 0x79 then
        if p3 == 0x09 or p3 == 0x0A or p3 == 0x0C or p3 == 0x12 or p3 == 0x13 or p3 == 0x17 then
            return "deliver at once"
        end
        return "hold"
    elseif p2 == 0x69 then
        return p3 == 0x09 and "hold" or "queue"
    elseif p2 == 0x00 then
        return (p1 == 0 and fields.computed == 0) and "block data" or "queue"
    end
    return "queue"
end

-- The payload length fixed by the reply's command group, or 0.
local function fixed_block_payload(p2, p3)
    if (p2 == 0x8B and p3 == 0x09) or (p2 == 0x69 and p3 == 0x09) or (p2 == 0x77 and p3 == 0x23) then
        return FIXED_BLOCK
    end
    if p2 == 0x8B and p3 == 0x05 then return LONG_FIXED_BLOCK end
    return 0
end

-- combineReplyWithBlock: the payload of the record delivered, or nil.
local function combine_reply_with_block(block, held)
    if held == "" or block == "" then return nil end
    local fields = effective_fields(parse_reply_datagram(held))
    local fixed = fixed_block_payload(fields.params[2], fields.params[3])
    if fixed > 0 then return block:sub(1, fixed) end
    local length = combine_two_byte(fields.params[5], fields.params[6])
    if length <= 0 or #block < length then return nil end
    return block:sub(1, length)
end

------------------------------------------------------------------------------
-- State, reset for every capture file

local results          -- packet number -> what was found for it
local udp_receivers    -- library endpoint -> { held, held_frame, block }
local udp_commands     -- "source>destination" -> command in pieces
local udp_endpoints    -- "a|b" endpoint pairs seen to speak the protocol
local streams          -- link byte -> { buffer, waiting }

local function reset_state()
    results = {}
    udp_receivers = {}
    udp_commands = {}
    udp_endpoints = {}
    streams = {}
end
reset_state()
libcomm.init = reset_state

local function endpoint(address, port)
    return tostring(address) .. ":" .. tostring(port)
end

local function pair_key(pinfo)
    local a, b = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
    if a < b then return a .. "|" .. b end
    return b .. "|" .. a
end

------------------------------------------------------------------------------
-- UDP

-- What a datagram is, worked out once, in capture order.
local function analyse_datagram(pinfo, bytes)
    local flow = endpoint(pinfo.src, pinfo.src_port) .. ">" .. endpoint(pinfo.dst, pinfo.dst_port)
    local pending = udp_commands[flow]
    local header = parse_command_header(bytes)

    -- A command longer than one datagram goes out in 540-byte pieces, the
    -- last one shorter. Simplification: a frame of exactly n * 540 bytes
    -- looks unfinished, until the next command header in the same direction.
    if pending and not header then
        pending.datagrams[#pending.datagrams + 1] = bytes
        pending.frames[#pending.frames + 1] = pinfo.number
        local result = { what = "piece", piece = #pending.datagrams, first = pending.frames[1] }
        if #bytes < MAX_DATAGRAM then
            udp_commands[flow] = nil
            result.what = "command"
            result.frame = table.concat(pending.datagrams)
            result.frames = pending.frames
        end
        return result
    end
    if header then
        udp_commands[flow] = nil
        if #bytes == MAX_DATAGRAM then
            udp_commands[flow] = { datagrams = { bytes }, frames = { pinfo.number } }
            return { what = "piece", piece = 1, first = pinfo.number }
        end
        return { what = "command", frame = bytes, frames = { pinfo.number } }
    end

    -- Anything else is a datagram the library receives.
    local receiver_key = endpoint(pinfo.dst, pinfo.dst_port)
    local receiver = udp_receivers[receiver_key]
    if not receiver then
        receiver = { held = "", held_frame = nil, block = "" }
        udp_receivers[receiver_key] = receiver
    end
    local parsed = parse_reply_datagram(bytes)
    local result = { what = "datagram", parsed = parsed, action = reply_action(effective_fields(parsed)) }
    if result.action == "hold" then
        -- Replaces a reply held earlier; block data gathered so far stays.
        receiver.held = bytes
        receiver.held_frame = pinfo.number
    elseif result.action == "block data" then
        local held = effective_fields(parse_reply_datagram(receiver.held))
        result.held_frame = receiver.held_frame
        result.expected = combine_two_byte(held.params[5], held.params[6])
        receiver.block = receiver.block .. bytes
        result.gathered = #receiver.block
        if #receiver.block >= result.expected then
            result.complete = true
            result.record_payload = combine_reply_with_block(receiver.block, receiver.held)
            receiver.held = ""
            receiver.held_frame = nil
            receiver.block = ""
        end
    end
    return result
end

local function add_reply_fields(item, tvb, parsed)
    if parsed.cmd then
        add_header_fields(item, tvb, parsed, not parsed.reject)
    end
end

local function dissect_datagram(tvb, pinfo, tree)
    local result = results[pinfo.number]
    if not result then
        result = analyse_datagram(pinfo, tvb:raw())
        results[pinfo.number] = result
    end
    pinfo.cols.protocol = "LIBCOMM"

    if result.what == "piece" then
        local item = tree:add(libcomm, tvb(), "Command frame piece")
        item:add(f.piece, result.piece):set_generated()
        item:add(f.piece_frame, result.first):set_generated()
        item:add(f.data, tvb())
        pinfo.cols.info = string.format("Command piece %d (%d bytes)", result.piece, tvb:len())
        return
    end
    if result.what == "command" then
        local frame_tvb = tvb
        if #result.frames > 1 then
            frame_tvb = ByteArray.new(result.frame, true):tvb("Reassembled command")
        end
        local fields = add_command(tree, frame_tvb)
        if #result.frames > 1 then
            local item = tree:add(libcomm, tvb(), "Pieces")
            item:add(f.pieces, #result.frames):set_generated()
            for _, number in ipairs(result.frames) do
                item:add(f.piece_frame, number):set_generated()
            end
        end
        if fields then
            pinfo.cols.info = string.format("Command 0x%02x params %s, payload %d bytes", fields.cmd,
                                            params_text(fields), #result.frame - HEADER_SIZE)
        end
        return
    end

    local parsed = result.parsed
    local item = tree:add(libcomm, tvb(), "Datagram to the library")
    local kind = result.action == "block data" and "block" or "reply"
    item:add(f.kind, kind):set_generated()
    add_reply_fields(item, tvb, parsed)
    if parsed.reject then
        item:add(f.reject, parsed.reject):set_generated():add_proto_expert_info(expert_rejected)
    end
    item:add(f.action, result.action):set_generated()
    local info
    if kind == "reply" then
        info = string.format("Reply 0x%02x params %s: %s", parsed.cmd, params_text(parsed), result.action)
    else
        item:add(f.data, tvb())
        if result.held_frame then item:add(f.held_in, result.held_frame):set_generated() end
        item:add(f.block_expected, result.expected):set_generated()
        item:add(f.block_gathered, result.gathered):set_generated()
        info = string.format("Block data %d bytes, %d of %d gathered", tvb:len(), result.gathered, result.expected)
        if result.complete then
            if result.record_payload then
                item:add(f.record, "delivered"):set_generated()
                item:add(f.record_payload_length, #result.record_payload):set_generated()
                if #result.record_payload > 0 then
                    local record_tvb = ByteArray.new(result.record_payload, true):tvb("Record payload")
                    item:add(f.record_payload, record_tvb())
                end
                info = info .. string.format(": record delivered, payload %d bytes", #result.record_payload)
            else
                item:add(f.record, "none"):set_generated()
                info = info .. ": nothing delivered"
            end
        end
    end
    if parsed.reject then info = info .. " [" .. parsed.reject .. "]" end
    pinfo.cols.info = info
end

function libcomm.dissector(tvb, pinfo, tree)
    udp_endpoints[pair_key(pinfo)] = true
    dissect_datagram(tvb, pinfo, tree)
    return tvb:len()
end

local function heuristic(tvb, pinfo, tree)
    local key = pair_key(pinfo)
    if not udp_endpoints[key] then
        if tvb:len() < 2 then return false end
        local start = tvb:raw(0, 2)
        if start ~= "[A" and start ~= "[R" then return false end
        udp_endpoints[key] = true
    end
    dissect_datagram(tvb, pinfo, tree)
    return true
end
libcomm:register_heuristic("udp", heuristic)

local registered_ports = ""
local function register_ports()
    local table_ = DissectorTable.get("udp.port")
    if registered_ports ~= "" then table_:remove(registered_ports, libcomm) end
    registered_ports = libcomm.prefs.ports
    if registered_ports ~= "" then table_:add(registered_ports, libcomm) end
end
function libcomm.prefs_changed()
    register_ports()
end
register_ports()

------------------------------------------------------------------------------
-- Serial line and USB reports (StreamReassembler)

local STREAM_CONFIG = {
    [1] = { blocks = true, check_failure = "PortSerial::getArrayData   dataStr==" },
    [2] = { blocks = false, check_failure = "PortUSB::getArrayData   dataStr==" },
}

-- Whether a reply announces a raw block behind it on the serial line.
local function announces_block(fields)
    local p2, p3 = fields.params[2], fields.params[3]
    return p2 == 0x79 or p2 == 0xE1 or (p2 == 0x8E and p3 == 0x27)
end

local function text_up_to_zero(bytes)
    local zero = bytes:find("\0", 1, true)
    if zero then return bytes:sub(1, zero - 1) end
    return bytes
end

-- Runs the library's worker turns over the bytes received so far, as far as
-- they go, appending what they do to events. Simplification: the worker
-- takes one frame per turn and its turns are paced; here every turn runs as
-- soon as the bytes are there, and only the block wait looks at time.
local function stream_turns(stream, config, now, events)
    for _ = 1, 100000 do
        local buffer = stream.buffer
        if stream.waiting then
            local wait = stream.waiting
            local late = now - wait.since > BLOCK_WAIT_SECONDS
            if late then
                -- The worker gave up: nothing of the block is consumed.
                events[#events + 1] = { type = "block", frame = wait.frame, fields = wait.fields,
                                        length = wait.length, failure = "incomplete" }
                stream.waiting = nil
            elseif #buffer < wait.length then
                return
            else
                local block = buffer:sub(1, wait.length)
                stream.buffer = buffer:sub(wait.length + 1)
                local sum = 0
                for i = 1, wait.length - 1 do sum = sum + block:byte(i) end
                local event = { type = "block", frame = wait.frame, fields = wait.fields, length = wait.length,
                                bytes = block, check = block:byte(wait.length), computed = sum % 256 }
                if event.check ~= event.computed then event.failure = "check byte wrong" end
                events[#events + 1] = event
                stream.waiting = nil
            end
        else
            local snapshot = buffer:sub(1, SNAPSHOT)
            if #snapshot < HEADER_SIZE then return end
            local start = snapshot:find("[", 1, true)
            if not start then
                events[#events + 1] = { type = "garbage", bytes = snapshot }
                stream.buffer = buffer:sub(#snapshot + 1)
            elseif start > 1 then
                events[#events + 1] = { type = "garbage", bytes = buffer:sub(1, start - 1) }
                stream.buffer = buffer:sub(start)
            elseif #buffer < 2 then
                return
            elseif buffer:sub(2, 2) ~= "R" or (#buffer >= HEADER_SIZE and buffer:sub(HEADER_SIZE, HEADER_SIZE) ~= "]") then
                events[#events + 1] = { type = "garbage", bytes = "[" }
                stream.buffer = buffer:sub(2)
            elseif #buffer < HEADER_SIZE then
                return
            else
                local header = buffer:sub(1, HEADER_SIZE)
                local fields = header_fields(read_pairs(header:sub(3, 18)))
                -- The sent check byte is compared as the whole number read,
                -- so a pair such as "-1" never matches.
                if fields.sent ~= fields.computed then
                    events[#events + 1] = { type = "frame", bytes = header, fields = fields,
                                            reject = config.check_failure .. text_up_to_zero(header:sub(3, 18)) }
                    stream.buffer = buffer:sub(2)
                else
                    stream.buffer = buffer:sub(HEADER_SIZE + 1)
                    local event = { type = "frame", bytes = header, fields = fields }
                    events[#events + 1] = event
                    if config.blocks and announces_block(fields) then
                        local length = fields.params[5] + 256 * fields.params[6]
                        event.announces = length
                        if length == 0 then
                            events[#events + 1] = { type = "block", fields = fields, length = 0, bytes = "" }
                        else
                            stream.waiting = { fields = fields, length = length, since = now, frame = event }
                        end
                    end
                end
            end
        end
    end
end

local function add_stream_header(tree, tvb)
    tree:add(f.direction, tvb(0, 1))
    tree:add(f.link, tvb(1, 1))
end

local function render_stream_event(tree, event)
    if event.type == "garbage" then
        local garbage_tvb = ByteArray.new(event.bytes, true):tvb("Skipped bytes")
        local item = tree:add(libcomm, garbage_tvb(), "Skipped bytes")
        item:add(f.garbage, garbage_tvb())
        item:add(f.garbage_length, #event.bytes):set_generated()
        return nil
    end
    if event.type == "frame" then
        local frame_tvb = ByteArray.new(event.bytes, true):tvb("Reply frame")
        local item = tree:add(libcomm, frame_tvb(), "Reply frame")
        item:add(f.kind, "reply"):set_generated()
        add_header_fields(item, frame_tvb, event.fields, not event.reject)
        if event.reject then
            item:add(f.reject, event.reject):set_generated():add_proto_expert_info(expert_rejected)
            return "rejected reply"
        end
        if event.announces then
            item:add(f.block_expected, event.announces):set_generated()
            return string.format("Reply 0x%02x, block of %d bytes announced", event.fields.cmd, event.announces)
        end
        item:add(f.action, "queue"):set_generated()
        return string.format("Reply 0x%02x params %s", event.fields.cmd, params_text(event.fields))
    end
    -- A block and the record it completes.
    local block_tvb = event.bytes and event.bytes ~= "" and ByteArray.new(event.bytes, true):tvb("Block") or nil
    local item = block_tvb and tree:add(libcomm, block_tvb(), "Block data") or tree:add(libcomm, "Block data")
    item:add(f.kind, "block"):set_generated()
    if event.frame and event.frame.number then
        item:add(f.held_in, event.frame.number):set_generated()
    end
    item:add(f.block_expected, event.length):set_generated()
    if block_tvb then
        item:add(f.block_data, block_tvb())
        item:add(f.checksum, block_tvb(event.length - 1, 1))
        item:add(f.checksum_computed, event.computed):set_generated()
        item:add(f.checksum_status, event.failure and "bad" or "good"):set_generated()
    end
    if event.failure then
        item:add(f.block_status, event.failure):set_generated()
        item:add(f.reject, "CheckBlock default:"):set_generated():add_proto_expert_info(expert_rejected)
        item:add(f.record, "none"):set_generated()
        return string.format("Block of %d bytes: %s, nothing delivered", event.length, event.failure)
    end
    item:add(f.block_status, "complete"):set_generated()
    item:add(f.action, "deliver at once"):set_generated()
    item:add(f.record, "delivered"):set_generated()
    item:add(f.record_payload_length, event.length):set_generated()
    return string.format("Block of %d bytes: record delivered", event.length)
end

local function dissect_stream(link_byte, tvb, pinfo, tree)
    pinfo.cols.protocol = "LIBCOMM"
    local item = tree:add(libcomm, tvb(), "libComm_Module " .. link_names[link_byte] .. " capture")
    if tvb:len() < 4 then
        item:add(f.data, tvb())
        return tvb:len()
    end
    add_stream_header(item, tvb)
    local direction = tvb(0, 1):uint()
    local data = nil
    if tvb:len() > 4 then data = tvb(4):tvb() end

    if direction == 0 then
        local bytes = data and data:raw() or ""
        local offset = 0
        if link_byte == 2 and #bytes > 0 then
            item:add(f.report_id, data(0, 1))
            offset = 1
        end
        local frame_bytes = bytes:sub(offset + 1)
        if parse_command_header(frame_bytes) then
            local frame_tvb = data(offset):tvb()
            if link_byte == 2 then
                -- Simplification: an output report is zero-filled behind the
                -- frame, so zeros at the end of a report are taken as filling.
                local used = #frame_bytes
                while used > HEADER_SIZE and frame_bytes:byte(used) == 0 do used = used - 1 end
                frame_tvb = data(offset, used):tvb()
            end
            local fields = add_command(tree, frame_tvb)
            pinfo.cols.info = string.format("Command 0x%02x params %s", fields.cmd, params_text(fields))
        elseif data then
            item:add(f.data, data(offset))
            pinfo.cols.info = "Written: " .. (#bytes - offset) .. " bytes"
        end
        return tvb:len()
    end

    local result = results[pinfo.number]
    if not result then
        local stream = streams[link_byte]
        if not stream then
            stream = { buffer = "" }
            streams[link_byte] = stream
        end
        stream.buffer = stream.buffer .. (data and data:raw() or "")
        result = { events = {} }
        stream_turns(stream, STREAM_CONFIG[link_byte], pinfo.abs_ts, result.events)
        for _, event in ipairs(result.events) do
            if event.type == "frame" then event.number = pinfo.number end
        end
        results[pinfo.number] = result
    end
    if data then item:add(f.data, data()) end
    local infos = {}
    for _, event in ipairs(result.events) do
        local info = render_stream_event(tree, event)
        if info then infos[#infos + 1] = info end
    end
    pinfo.cols.info = #infos > 0 and table.concat(infos, "; ") or ("Read: " .. (data and data:len() or 0) .. " bytes")
    return tvb:len()
end

function libcomm_serial.dissector(tvb, pinfo, tree)
    return dissect_stream(1, tvb, pinfo, tree)
end

function libcomm_usb.dissector(tvb, pinfo, tree)
    return dissect_stream(2, tvb, pinfo, tree)
end

local encapsulations = DissectorTable.get("wtap_encap")
encapsulations:add(wtap.USER0, libcomm_serial)
encapsulations:add(wtap.USER1, libcomm_usb)
