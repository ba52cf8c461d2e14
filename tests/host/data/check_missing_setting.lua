-- The settings table lacks the folder icons.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.FolderIcon = nil
  return settings
end
