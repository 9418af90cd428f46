-- SPDX-License-Identifier: Apache-2.0
-- Shows captures of `svcmgr-sim run --capture` in Wireshark and tshark, field by field.
--
--   tshark -X lua_script:velmora_svcmgr.lua -r FILE.pcapng
--
-- or for good, in Wireshark's folder of personal Lua plugins (see its "About", "Folders").

local proto = Proto("velmora_svcmgr", "Service manager")

local kinds = {[0] = "message", [1] = "bytes", [2] = "connect", [3] = "disconnect", [4] = "refuse"}
local MESSAGE, BYTES, CONNECT, DISCONNECT, REFUSE = 0, 1, 2, 3, 4
local directions = {[0] = "to the agent", [1] = "to the client"}
local TO_CLIENT = 1
local streams = {[0] = "main", [1] = "callback"}
local MAIN = 0
local REPLY, ANSWER = 0, 1

local methods = {
  [2] = "get_agent_api_level",
  [3] = "get_license",
  [4] = "request_update",
  [5] = "GetUsableModelList",
  [6] = "GetUsableModelListWithDesc",
  [7] = "GetModelVersionList",
  [8] = "RequestToUpdate",
  [9] = "RequestToUninstall",
  [10] = "request_update_with_list",
}
local GET_LICENSE = 3
local delegates = {}  -- the methods that they are for
for id = 1, 5 do delegates[id] = methods[id + 4] end
local FIRST_WORK_DELEGATE = 4
local states = {[1] = "working", [2] = "done", [3] = "failed"}

local f = proto.fields
f.direction = ProtoField.uint8("velmora_svcmgr.direction", "Direction", base.DEC, directions)
f.stream = ProtoField.uint8("velmora_svcmgr.stream", "Stream", base.DEC, streams)
f.kind = ProtoField.uint8("velmora_svcmgr.kind", "Kind", base.DEC, kinds)
f.client = ProtoField.uint32("velmora_svcmgr.client", "Client")
f.app = ProtoField.string("velmora_svcmgr.app", "Application")
f.length = ProtoField.uint32("velmora_svcmgr.length", "Length")
f.bytes = ProtoField.bytes("velmora_svcmgr.bytes", "Bytes")
f.command = ProtoField.int32("velmora_svcmgr.command", "Command", base.DEC,
                             {[REPLY] = "reply", [ANSWER] = "answer"})
f.method = ProtoField.int32("velmora_svcmgr.method", "Method", base.DEC, methods)
f.answers = ProtoField.string("velmora_svcmgr.answers", "Answers the method")
f.request = ProtoField.framenum("velmora_svcmgr.request", "Request", base.NONE, frametype.REQUEST)
f.delegate = ProtoField.none("velmora_svcmgr.delegate", "Delegate")
f.delegate_id = ProtoField.int32("velmora_svcmgr.delegate.id", "ID", base.DEC, delegates)
f.delegate_seq = ProtoField.int32("velmora_svcmgr.delegate.seq", "Sequence number")
f.delegate_once = ProtoField.bool("velmora_svcmgr.delegate.once", "Once")
f.app_id = ProtoField.string("velmora_svcmgr.app_id", "Application ID")
f.app_version = ProtoField.string("velmora_svcmgr.app_version", "Application version")
f.array_count = ProtoField.int32("velmora_svcmgr.array_count", "Length of the list")
f.count = ProtoField.int32("velmora_svcmgr.count", "Count")
f.model = ProtoField.none("velmora_svcmgr.model", "Model")
f.model_id = ProtoField.string("velmora_svcmgr.model.id", "ID")
f.model_version = ProtoField.string("velmora_svcmgr.model.version", "Version")
f.model_title = ProtoField.string("velmora_svcmgr.model.title", "Title")
f.model_description = ProtoField.string("velmora_svcmgr.model.description", "Description")
f.agent = ProtoField.string("velmora_svcmgr.agent", "Agent")
f.result = ProtoField.int32("velmora_svcmgr.result", "Result")
f.text = ProtoField.string("velmora_svcmgr.text", "Text")
f.state = ProtoField.int32("velmora_svcmgr.state", "State", base.DEC, states)
f.index = ProtoField.int32("velmora_svcmgr.index", "Index")
f.percentage = ProtoField.int32("velmora_svcmgr.percentage", "Percentage")
f.rest = ProtoField.bytes("velmora_svcmgr.rest", "Bytes that nothing explains")

local early = ProtoExpert.new("velmora_svcmgr.early", "The message ends early",
                              expert.group.MALFORMED, expert.severity.ERROR)
local unknown = ProtoExpert.new("velmora_svcmgr.unknown", "No method, command or delegate",
                                expert.group.PROTOCOL, expert.severity.WARN)
local partial = ProtoExpert.new("velmora_svcmgr.partial", "The message was captured in part",
                                expert.group.UNDECODED, expert.severity.NOTE)
proto.experts = {early, unknown, partial}

-- What a client has asked for last on its main stream, where it waits for each reply; and for each
-- frame with a reply, what it is a reply to. Frames are seen in their order only the first time.
local asked, replies

function proto.init()
  asked, replies = {}, {}
end

-- Reads a message from front to back; after its end was reached too early, it reads nothing more.
local Reader = {}
Reader.__index = Reader

local function reader(tvb, tree, in_part)
  return setmetatable({tvb = tvb, at = 0, tree = tree, whole = true, in_part = in_part}, Reader)
end

function Reader:has(size)
  if self.whole and (size < 0 or self.at + size > self.tvb:len()) then
    self.whole = false
    self.tree:add_proto_expert_info(self.in_part and partial or early)
  end
  return self.whole
end

function Reader:int(field, tree)
  if not self:has(4) then return nil end
  local range = self.tvb:range(self.at, 4)
  self.at = self.at + 4
  if field then (tree or self.tree):add_le(field, range) end
  return range:le_int()
end

function Reader:flag(field, tree)
  if not self:has(1) then return end
  tree:add(field, self.tvb:range(self.at, 1))
  self.at = self.at + 1
end

-- A text is its length with the zero at its end, then its bytes.
function Reader:string(field, tree)
  local length = self:int()
  if length == nil or length < 1 or not self:has(length) then
    if length ~= nil and length < 1 then self:has(-1) end
    return nil
  end
  local range = self.tvb:range(self.at, length)
  self.at = self.at + length
  local text = length > 1 and range:range(0, length - 1):string(ENC_UTF_8) or ""
  local target = tree or self.tree
  target:add(field, range, text)
  return text
end

function Reader:delegate()
  local tree = self.tree:add(f.delegate, self.tvb:range(self.at, math.min(9, self.tvb:len() - self.at)))
  local id = self:int(f.delegate_id, tree)
  local seq = self:int(f.delegate_seq, tree)
  self:flag(f.delegate_once, tree)
  return id, seq
end

function Reader:model()
  local begin = self.at
  if not self:has(4) then return nil end
  local tree = self.tree:add(f.model, self.tvb:range(begin, 4))
  local id = self:string(f.model_id, tree)
  local version = self:string(f.model_version, tree)
  self:string(f.model_title, tree)
  self:string(f.model_description, tree)
  tree:set_len(self.at - begin)
  local name = (id or "?") .. (version and version ~= "" and " " .. version or "")
  tree:append_text(": " .. name)
  return name
end

-- At most a few names: a list may be long.
local function names_of(names)
  local most = 5
  local text = table.concat(names, ", ", 1, math.min(#names, most))
  return #names > most and text .. " and " .. (#names - most) .. " more" or text
end

-- Elements behind their number, and the count beside them.
function Reader:list(read)
  local names = {}
  for _ = 1, self:int(f.array_count) or 0 do
    local name = read()
    if not self.whole then break end
    names[#names + 1] = name
  end
  self:int(f.count)
  return names_of(names)
end

function Reader:models()
  return self:list(function() return self:model() end)
end

function Reader:agents()
  return self:list(function() return self:string(f.agent) end)
end

local function list_query(message)
  message:delegate()
  message:string(f.app_id)
  message:string(f.app_version)
  return ""
end

local function version_query(message)
  message:delegate()
  local name = message:model()
  message:string(f.app_id)
  message:string(f.app_version)
  return name or ""
end

local function work(message)
  message:delegate()
  return message:models()
end

local arguments = {
  [5] = list_query,
  [6] = list_query,
  [7] = version_query,
  [8] = work,
  [9] = work,
  [10] = Reader.agents,
}

local function request(message, pinfo, client)
  local method = message:int(f.method)
  if method == nil then return "a request that ends early" end
  if methods[method] == nil then
    message.tree:add_proto_expert_info(unknown)
    return "a request of no method: " .. method
  end
  if not pinfo.visited then asked[client] = {method = method, frame = pinfo.number} end
  local said = arguments[method] and arguments[method](message) or ""
  return methods[method] .. (said ~= "" and " of " .. said or "")
end

local function reply(message, pinfo, client)
  local command = message:int(f.command)
  if not pinfo.visited and command == REPLY then
    replies[pinfo.number] = asked[client]
    asked[client] = nil
  end
  local to = replies[pinfo.number]
  if command ~= REPLY or to == nil then
    message.tree:add_proto_expert_info(unknown)
    return "a message that is no reply"
  end
  message.tree:add(f.answers, methods[to.method]):set_generated()
  message.tree:add(f.request, to.frame):set_generated()
  local said
  if to.method == GET_LICENSE then
    said = message:string(f.text) and "text" or "?"
  else
    said = message:int(f.result)
  end
  return "reply to " .. methods[to.method] .. ": " .. tostring(said)
end

local function answer(message)
  local command = message:int(f.command)
  if command ~= ANSWER then
    message.tree:add_proto_expert_info(unknown)
    return "a message that is no answer"
  end
  local id = message:delegate()
  if delegates[id] == nil then
    message.tree:add_proto_expert_info(unknown)
    return "an answer to no delegate"
  end
  message.tree:add(f.answers, delegates[id]):set_generated()
  local text = "answer to " .. delegates[id] .. ": result " .. tostring(message:int(f.result))
  if id < FIRST_WORK_DELEGATE then
    local names = message:models()
    return text .. (names ~= "" and ", " .. names or "")
  end
  local state = message:int(f.state)
  local index = message:int(f.index)
  local count = message:int(f.count)
  local percentage = message:int(f.percentage)
  return string.format("%s, %s, model %s of %s, %s %%", text, states[state] or "state " .. tostring(state),
                       tostring(index), tostring(count), tostring(percentage))
end

local function dissect_message(tvb, pinfo, tree, client, to_client, stream, in_part)
  if tvb:len() < 4 then
    tree:add_proto_expert_info(early)
    return "no message"
  end
  tree:add_le(f.length, tvb:range(0, 4))
  if tvb:len() == 4 then
    tree:add_proto_expert_info(early)
    return "an empty message"
  end
  local message = reader(tvb:range(4):tvb(), tree, in_part)
  local said
  if not to_client then
    said = request(message, pinfo, client)
  elseif stream == MAIN then
    said = reply(message, pinfo, client)
  else
    said = answer(message)
  end
  if message.whole and message.at < message.tvb:len() then
    tree:add(f.rest, message.tvb:range(message.at))
  end
  local broken = in_part and " (captured in part)" or " (ends early)"
  return said .. (message.whole and "" or broken)
end

function proto.dissector(tvb, pinfo, root)
  local header = 8
  if tvb:len() < header or tvb(0, 1):uint() ~= 1 then return 0 end
  local direction, stream, kind = tvb(1, 1):uint(), tvb(2, 1):uint(), tvb(3, 1):uint()
  local client = tvb(4, 4):le_uint()
  local tree = root:add(proto, tvb())
  tree:add(f.direction, tvb(1, 1))
  tree:add(f.stream, tvb(2, 1))
  tree:add(f.kind, tvb(3, 1))
  tree:add_le(f.client, tvb(4, 4))

  local to_client = direction == TO_CLIENT
  local name = client == 0 and "a client" or "client " .. client
  pinfo.cols.protocol = "SVCMGR"
  pinfo.cols.src = to_client and "agent" or name
  pinfo.cols.dst = to_client and name or "agent"

  local rest = tvb:len() > header and tvb:range(header):tvb() or nil
  local said = kinds[kind] or "unknown"
  if kind == MESSAGE and rest then
    said = dissect_message(rest, pinfo, tree, client, to_client, stream,
                           tvb:reported_len() > tvb:len())
  elseif (kind == CONNECT or kind == REFUSE) and rest then
    tree:add(f.app, rest:range())
    said = said .. " " .. rest:range():string()
  elseif kind == BYTES and rest then
    tree:add(f.bytes, rest:range())
    tree:add_proto_expert_info(early)
  end
  pinfo.cols.info = said
  return tvb:len()
end
