-- The datagrams of mwd(8) for Wireshark and tshark, as mwd-protocol(7) defines them. Every field is a filter under its
-- name there: mwd.header.uid == 7, mwd.vdisk.uuid == "v1", mwd.vdisk.generation > 99, mwd.malformed.
-- Lua 5.2 and later.

local mwd = Proto("mwd", "Metadata Daemon Protocol")

local TYPES = {
    [0] = "READ_REQ", "WRITE_REQ", "READ_RSP", "WRITE_RSP", "PING", "INFO_REQ", "INFO_RSP", "HASH_BROADCAST",
    "CREATE_REQ", "ACTIVATE_REQ", "DEACTIVATE_REQ", "DELETE_REQ", "SNAPSHOT_REQ", "SESSION_PING", "ACTIVATE_HEAD_REQ",
    "DEACTIVATE_HEAD_REQ", "DS_PING", "DSCREATE_REQ", "DSDELETE_REQ", "UPDATE_REQ", "START_VDISK_TXN_REQ",
    "END_VDISK_TXN_REQ", "FAIL_VDISK_TXN_REQ", "GET_VDISK_INFO_REQ", "ENABLE_VDISK_SYNC_MASTER",
    "ENABLE_VDISK_SYNC_SLAVE", "DISABLE_VDISK_SYNC", "PAUSE_VDISK_HEAD_REQ", "UNPAUSE_VDISK_HEAD_REQ", "SET_SEQNO",
    "SET_NODEMEMS", "SET_VDISK_SIZE", "HEARTBEAT", "SINGLE_VDISK_PING", "VDISK_DELETED", "AUX_PING",
}

-- Records: each field with its width and type, in the order of the bytes.
local HEADER = {
    prefix = "mwd.header", title = "Header", length = 207,
    {"major", 1, "number", "Major version"},
    {"minor", 1, "number", "Minor version"},
    {"type", 1, "number", "Message type", TYPES},
    {"nodestatus", 1, "number", "Node status"},
    {"uid", 4, "number", "Node"},
    {"vendor", 32, "text", "Vendor"},
    {"model", 32, "text", "Model"},
    {"revision.freespace", 4, "number", "Free space"},
    {"revision.utilization", 4, "number", "Utilization"},
    {"revision.rev", 24, "text", "Revision"},
    {"serial", 64, "text", "Serial number"},
    {"hbtl", 32, "text", "hbtl"},
    {"size", 4, "number", "Size"},
    {"performance", 1, "number", "Performance"},
    {"hostid", 2, "number", "Host id"},
}
local AUX = {
    prefix = "mwd.aux", title = "Capacity record", length = 28,
    {"length", 4, "number", "Length"},
    {"allocatedspace", 4, "number", "Allocated space"},
    {"curvdisks", 4, "number", "VDisks"},
    {"curvdisksforctrl", 4, "number", "VDisks of the controller"},
    {"maxvdisksforctrl", 4, "number", "Most VDisks of the controller"},
    {"memtotal", 4, "number", "Memory"},
    {"memavail", 4, "number", "Memory available"},
}
local DATASTORE = {
    prefix = "mwd.datastore", title = "Datastore", length = 87,
    {"uuid", 14, "text", "Datastore"},
    {"name", 32, "text", "Name"},
    {"description", 32, "text", "Description"},
    {"sector_size", 4, "number", "Sector size"},
    {"replicas", 2, "number", "Replicas"},
    {"stripes", 2, "number", "Stripes"},
    {"overcommit", 1, "number", "Overcommit"},
}
local DELETED = {
    prefix = "mwd.deleted", title = "Deletion", length = 18,
    {"node", 4, "number", "Node"},
    {"uuid", 14, "text", "VDisk"},
}
-- A VDisk's entry: what stands in its middle depends on the `snapshot` of its end.
local VDISK = {
    prefix = "mwd.vdisk", title = "VDisk", length = 125,
    {"transaction_id", 4, "number", "Transaction"},
    {"uuid", 14, "text", "VDisk"},
    {"old_mshipgencnt", 2, "text", "Membership generation, two digits"},
    {"name", 28, "text", "Name"},
    {"mshipgencnt", 2, "big-endian", "Membership generation, 16 bits"},
    {"sector_size", 4, "number", "Sector size"},
    {"numkeys", 8, "number", "Keys"},
    {"sectors", 8, "number", "Sectors"},
    {"seqno", 8, "number", "Sequence number"},
}
local DESCRIPTION = {
    prefix = "mwd.vdisk", length = 32,
    {"description", 32, "text", "Description"},
}
local SNAPSHOT = {
    prefix = "mwd.vdisk", length = 32,
    {"y", 1, "number", "Year"},
    {"m", 1, "number", "Month"},
    {"d", 2, "number", "Day"},
    {"H", 1, "number", "Hour"},
    {"M", 1, "number", "Minute"},
    {"S", 1, "number", "Second"},
    {"parent", 14, "text", "Parent"},
}
local VDISK_END = {
    prefix = "mwd.vdisk", length = 15,
    {"status", 1, "number", "Status"},
    {"port", 2, "number", "Port"},
    {"replicas", 2, "number", "Replicas"},
    {"st_mem", 1, "number", "st_mem"},
    {"st_mems", 1, "number", "st_mems"},
    {"st_size", 2, "number", "st_size"},
    {"snapshot", 2, "number", "Snapshot"},
    {"members", 2, "number", "Members"},
    {"frontends", 2, "number", "Frontends"},
}
local DESCRIPTION_OFFSET, VDISK_END_OFFSET, SNAPSHOT_OFFSET = 78, 110, 119
local AUX_OFFSET = 208

local NUMBER_FIELDS = {[1] = ProtoField.uint8, [2] = ProtoField.uint16, [4] = ProtoField.uint32, [8] = ProtoField.uint64}

local fields = {}

local function add_field(name, field)
    fields[name] = field
end

for _, record in ipairs({HEADER, AUX, DATASTORE, DELETED, VDISK, DESCRIPTION, SNAPSHOT, VDISK_END}) do
    if record.title then
        add_field(record.prefix, ProtoField.none(record.prefix, record.title))
    end
    for _, field in ipairs(record) do
        local name = record.prefix .. "." .. field[1]
        if field[3] == "text" then
            add_field(name, ProtoField.string(name, field[4]))
        else
            add_field(name, NUMBER_FIELDS[field[2]](name, field[4], base.DEC, field[5]))
        end
    end
end
add_field("mwd.header.backupchannel", ProtoField.ipv4("mwd.header.backupchannel", "Backup channel"))
add_field("mwd.vdisk.generation", ProtoField.uint16("mwd.vdisk.generation", "Membership generation that counts"))
add_field("mwd.vdisk.snaptime", ProtoField.string("mwd.vdisk.snaptime", "Time of the Snapshot"))
add_field("mwd.vdisk.membership", ProtoField.none("mwd.vdisk.membership", "Member list"))
add_field("mwd.vdisk.member", ProtoField.uint32("mwd.vdisk.member", "Member"))
add_field("mwd.vdisk.frontend_list", ProtoField.none("mwd.vdisk.frontend_list", "Frontend list"))
add_field("mwd.vdisk.frontend", ProtoField.ipv4("mwd.vdisk.frontend", "Frontend"))
add_field("mwd.malformed", ProtoField.string("mwd.malformed", "Refused"))
add_field("mwd.note", ProtoField.string("mwd.note", "Note"))
mwd.fields = fields

local MALFORMED, ERROR = expert.group.MALFORMED, expert.severity.ERROR
local experts = {
    count = ProtoExpert.new("mwd.expert.count", "List beyond the datagram", MALFORMED, ERROR),
    length = ProtoExpert.new("mwd.expert.length", "Wrong length", MALFORMED, ERROR),
    name = ProtoExpert.new("mwd.expert.name", "Unusable name", MALFORMED, ERROR),
    duplicate = ProtoExpert.new("mwd.expert.duplicate", "Duplicate VDisk", MALFORMED, ERROR),
    note = ProtoExpert.new("mwd.expert.note", "Ignored by the daemon", expert.group.PROTOCOL, expert.severity.WARN),
    cut = ProtoExpert.new("mwd.expert.cut", "The capture holds only the beginning of this datagram",
                          expert.group.UNDECODED, expert.severity.NOTE),
}
mwd.experts = experts

-- The length of the well-formed UTF-8 character that begins at `at`, or nil.
local function character_length(bytes, at)
    local first = bytes:byte(at)
    if first < 0x80 then
        return 1
    end
    local length = first >= 0xf0 and 4 or first >= 0xe0 and 3 or 2
    if first < 0xc2 or first > 0xf4 or at + length - 1 > #bytes then
        return nil
    end
    local code = first % 2 ^ (7 - length)
    for i = at + 1, at + length - 1 do
        local byte = bytes:byte(i)
        if byte < 0x80 or byte > 0xbf then
            return nil
        end
        code = code * 64 + byte - 0x80
    end
    local smallest = ({nil, 0x80, 0x800, 0x10000})[length]
    local surrogate = code >= 0xd800 and code <= 0xdfff
    if code < smallest or code > 0x10ffff or surrogate then
        return nil
    end
    return length
end

-- The text with what is not UTF-8 as \xNN.
local function escaped(bytes)
    if not bytes:find("[\128-\255]") then
        return bytes
    end
    local pieces, at = {}, 1
    while at <= #bytes do
        local length = character_length(bytes, at)
        table.insert(pieces, length and bytes:sub(at, at + length - 1) or string.format("\\x%02x", bytes:byte(at)))
        at = at + (length or 1)
    end
    return table.concat(pieces)
end

-- The same for a column, where no control character may stand.
local function printable(text)
    local function hexadecimal(bytes)
        return (bytes:gsub(".", function(byte) return string.format("\\x%02x", byte:byte()) end))
    end
    return (text:gsub("[\1-\31\127]", hexadecimal):gsub("\194[\128-\159]", hexadecimal))
end

-- The text of a field: up to its first zero byte, at most its width.
local function raw_text(range)
    local bytes = range:raw()
    local zero = bytes:find("\0", 1, true)
    return zero and bytes:sub(1, zero - 1) or bytes
end

local function usable(name)
    return name ~= "" and name ~= "." and name ~= ".." and not name:find("/", 1, true)
end

-- Adds the record's fields to the tree. Returns their values and items by name; texts as they are on the wire.
local function add_record(tree, tvb, offset, record)
    local values, items = {}, {}
    for _, field in ipairs(record) do
        local name, width, kind = field[1], field[2], field[3]
        local handle, range = fields[record.prefix .. "." .. name], tvb(offset, width)
        if kind == "text" then
            values[name] = raw_text(range)
            items[name] = tree:add(handle, range, escaped(values[name]))
        elseif kind == "big-endian" then
            values[name] = range:uint()
            items[name] = tree:add(handle, range)
        else
            values[name] = width <= 4 and range:le_uint() or nil
            items[name] = tree:add_le(handle, range)
        end
        offset = offset + width
    end
    return values, items
end

-- A datagram being read: `offset` is that of what comes next, `length` what was sent, `captured` what is there.
local Message = {}
Message.__index = Message

-- Whether the next `length` bytes are there. If the capture alone lacks them, the datagram is not to blame.
function Message:has(length)
    if self.offset + length > self.length then
        return false
    end
    self.cut = self.cut or self.offset + length > self.captured
    return not self.cut
end

function Message:complain(item, what, ...)
    if self.cut then
        return
    end
    local text = string.format(...)
    item:add_proto_expert_info(experts[what], text)
    self.tree:add(fields["mwd.malformed"], text):set_generated()
    table.insert(self.faults, text)
end

function Message:note(...)
    local text = string.format(...)
    self.tree:add(fields["mwd.note"], text):set_generated():add_proto_expert_info(experts.note, text)
    table.insert(self.faults, text)
end

function Message:note_ignored()
    if self.offset < self.length and not self.cut then
        self:note("%d bytes at the end that nothing calls for", self.length - self.offset)
    end
end

-- Reads a record of a subtree of its own. Returns the fields' values and items, and the subtree's root.
function Message:record(record)
    local root = self.tree:add(fields[record.prefix], self.tvb(self.offset, record.length))
    local values, items = add_record(root, self.tvb, self.offset, record)
    self.offset = self.offset + record.length
    return values, items, root
end

local function generation(header, vdisk)
    if header.major > 1 or (header.major == 1 and header.minor >= 8) then
        return vdisk.mshipgencnt
    end
    local function signed(byte)
        return byte >= 128 and byte - 256 or byte
    end
    return (signed(vdisk.digits:byte(1)) * 10 + signed(vdisk.digits:byte(2)) - 528) % 65536
end

-- Reads an entry at `offset`, its middle by its end. Returns its values, items and tree.
function Message:vdisk_entry(header)
    local offset, tvb = self.offset, self.tvb
    local root = self.tree:add(fields["mwd.vdisk"], tvb(offset, VDISK.length))
    local vdisk, items = add_record(root, tvb, offset, VDISK)
    vdisk.digits = tvb(offset + 18, 2):raw()
    root:add(fields["mwd.vdisk.generation"], tvb(offset + 48, 2), generation(header, vdisk)):set_generated()
    local is_snapshot = tvb(offset + SNAPSHOT_OFFSET, 2):le_uint() ~= 0
    local middle, middle_items = add_record(root, tvb, offset + DESCRIPTION_OFFSET, is_snapshot and SNAPSHOT or DESCRIPTION)
    if is_snapshot then
        vdisk.parent, items.parent = middle.parent, middle_items.parent
        local snaptime = string.format("%02d-%02d-%02d_%02d.%02d.%02d", middle.y, middle.m, middle.d, middle.H, middle.M,
                                       middle.S)
        root:add(fields["mwd.vdisk.snaptime"], tvb(offset + DESCRIPTION_OFFSET, 7), snaptime):set_generated()
    end
    local last, last_items = add_record(root, tvb, offset + VDISK_END_OFFSET, VDISK_END)
    for _, name in ipairs({"snapshot", "members", "frontends"}) do
        vdisk[name], items[name] = last[name], last_items[name]
    end
    root:append_text(" " .. printable(escaped(vdisk.uuid)))
    self.offset = offset + VDISK.length
    return vdisk, items, root
end

-- Reads up to `count` numbers of four bytes as a subtree. Returns how many there are.
function Message:list(root, list_name, name, count)
    if count == 0 then
        return 0
    end
    local there = math.max(0, math.min(count, math.floor((math.min(self.length, self.captured) - self.offset) / 4)))
    local list = there > 0 and root:add(fields[list_name], self.tvb(self.offset, there * 4)) or root:add(fields[list_name])
    for _ = 1, there do
        list:add_le(fields[name], self.tvb(self.offset, 4))
        self.offset = self.offset + 4
    end
    if there < count then
        self:has(4)
    end
    return there
end

function Message:names_usable(vdisk, items)
    if not usable(vdisk.uuid) then
        self:complain(items.uuid, "name", "Malformed packet? #5: a VDisk cannot be named '%s'", escaped(vdisk.uuid))
        return false
    end
    if vdisk.parent and not usable(vdisk.parent) then
        self:complain(items.parent, "name", "Malformed packet? #5: the parent of %s cannot be named '%s'",
                      escaped(vdisk.uuid), escaped(vdisk.parent))
        return false
    end
    return true
end

function Message:lists(vdisk, items, root)
    local members = self:list(root, "mwd.vdisk.membership", "mwd.vdisk.member", vdisk.members)
    if members < vdisk.members then
        self:complain(items.members, "count", "Malformed packet? #2: %s has %d members, the datagram ends behind %d",
                      escaped(vdisk.uuid), vdisk.members, members)
        return false
    end
    local frontends = self:list(root, "mwd.vdisk.frontend_list", "mwd.vdisk.frontend", vdisk.frontends)
    if frontends < vdisk.frontends then
        self:complain(items.frontends, "count", "Malformed packet? #3: %s has %d frontends, the datagram ends behind %d",
                      escaped(vdisk.uuid), vdisk.frontends, frontends)
        return false
    end
    return true
end

-- Reads entries up to the first that is malformed. Returns the summary.
function Message:vdisks(header)
    local names, seen = {}, {}
    local function summary()
        local shown = #names > 6 and table.concat(names, " ", 1, 6) .. " ..." or table.concat(names, " ")
        return string.format(", %d VDisk%s%s%s%s", #names, #names == 1 and "" or "s", #names == 0 and "" or ": ", shown,
                             self.cut and ", cut" or "")
    end
    while self:has(VDISK.length) do
        local begin = self.offset
        local vdisk, items, root = self:vdisk_entry(header)
        table.insert(names, escaped(vdisk.uuid))
        local whole = self:names_usable(vdisk, items) and self:lists(vdisk, items, root)
        root:set_len(self.offset - begin)
        if not whole then
            return summary()
        end
        if seen[vdisk.uuid] then
            self:complain(items.uuid, "duplicate", "Duplicate VDisk Entry %s", escaped(vdisk.uuid))
        end
        seen[vdisk.uuid] = true
    end
    self:note_ignored()
    return summary()
end

function Message:datastore(header)
    if not self:has(DATASTORE.length) then
        self:note_ignored()
        return self.cut and "" or " is in no datastore"
    end
    local datastore, items = self:record(DATASTORE)
    self:note_ignored()
    if not usable(datastore.uuid) then
        self:complain(items.uuid, "name", "Malformed Datastore UUID from Node %d: %s", header.uid,
                      escaped(datastore.uuid))
    end
    return " is in datastore " .. escaped(datastore.uuid)
end

function Message:aux()
    self.offset = AUX_OFFSET
    if not self:has(AUX.length) then
        self:complain(self.tree, "length", "Malformed Node Ping?: %d bytes, an AUX_PING has %d", self.length,
                      AUX_OFFSET + AUX.length)
        return ""
    end
    local aux = self:record(AUX)
    self:note_ignored()
    return string.format(", allocatedspace %d, curvdisks %d, memavail %d of %d", aux.allocatedspace, aux.curvdisks,
                         aux.memavail, aux.memtotal)
end

function Message:deleted(header)
    if not self:has(DELETED.length) then
        self:complain(self.tree, "length", "Malformed packet? #4: %d bytes, a VDISK_DELETED has %d", self.length,
                      HEADER.length + DELETED.length)
        return ""
    end
    local deleted, items = self:record(DELETED)
    self:note_ignored()
    if deleted.node ~= header.uid then
        self:note("HASHREQ_VDISK_DELETED %d != %d, using %d", header.uid, deleted.node, header.uid)
    end
    if not usable(deleted.uuid) then
        self:complain(items.uuid, "name", "Malformed packet? #5: a VDisk cannot be named '%s'", escaped(deleted.uuid))
    end
    return " gave up VDisk " .. escaped(deleted.uuid)
end

function Message:heartbeat()
    self:note_ignored()
    return ""
end

local READERS = {
    [4] = Message.vdisks, [16] = Message.datastore, [32] = Message.heartbeat, [33] = Message.vdisks,
    [34] = Message.deleted, [35] = Message.aux,
}

-- Reads the whole datagram. Returns its kind and summary.
function Message:read()
    if not self:has(HEADER.length) then
        self:complain(self.tree, "length", "Malformed packet? #1: %d bytes, a header has %d", self.length, HEADER.length)
        return "UNKNOWN", "no header"
    end
    local header, _, root = self:record(HEADER)
    if header.nodestatus == 1 then
        root:add_le(fields["mwd.header.backupchannel"], self.tvb(200, 4)):set_generated()
    end
    local node = string.format("node %d v%d.%d", header.uid, header.major, header.minor)
    local reader = READERS[header.type]
    if not reader then
        self:note("Received unknown header type %d [%s]", header.type, TYPES[header.type] or "UNKNOWN")
        return "UNKNOWN", node
    end
    return TYPES[header.type], node .. reader(self, header)
end

function mwd.dissector(tvb, pinfo, root)
    local captured = tvb:captured_len()
    local tree = captured > 0 and root:add(mwd, tvb()) or root:add(mwd)
    local message = setmetatable({tvb = tvb, tree = tree, offset = 0, length = tvb:reported_len(), captured = captured,
                                  cut = false, faults = {}}, Message)
    local kind, summary = message:read()
    if message.cut then
        tree:add_proto_expert_info(experts.cut)
    end
    tree:append_text(", " .. kind .. ", " .. printable(summary))
    pinfo.cols.protocol = "MWD"
    pinfo.cols.info = printable(kind .. " " .. summary .. (#message.faults > 0 and " [" or "") ..
                                table.concat(message.faults, "; ") .. (#message.faults > 0 and "]" or ""))
end

mwd.prefs.port = Pref.range("UDP ports", "8000", "Ports of the daemons: bind_port in mwd.conf(5)", 65535)

local udp_ports = DissectorTable.get("udp.port")
local registered = ""

local function register_ports()
    if registered ~= "" then
        udp_ports:remove(registered, mwd)
    end
    registered = tostring(mwd.prefs.port)
    if registered ~= "" then
        udp_ports:add(registered, mwd)
    end
end

mwd.prefs_changed = register_ports
register_ports()
udp_ports:add_for_decode_as(mwd)
