-- An interface object index written as a string.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.ChannelType = { InterfaceObjectId = "1", PropertyId = 50 }
  return settings
end
