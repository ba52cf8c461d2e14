-- A settings table with a boolean key, and one in a setting's property table.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local settings = GetPropertyIds()
settings[true] = prop(0, 99)
settings.ChannelType = { InterfaceObjectId = 1, PropertyId = 50, [true] = 1 }
function GetPropertyIds() return settings end
