-- The settings table lacks a limit.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.MaxTextCharCount = nil
  return settings
end
