-- The settings table lacks a limit.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.MaxTextCharCount = nil
  return settings
end
