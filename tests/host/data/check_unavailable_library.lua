-- Reaches for what description scripts do not get; only the last line runs.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local function never()
  local f = io.open("settings.txt") -- a comment naming os.exit is no use
  os.execute("reboot")
  setmetatable({}, { __gc = function() end })
  return debug.getinfo(1), os.time(), os.date(), debug.traceback(), "io.open in a string"
end

function HandleDcsType(dcsType) os.exit(1) end
