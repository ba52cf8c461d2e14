-- The settings table lacks the folder icons.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.FolderIcon = nil
  return settings
end
