-- A setting name with a typo.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.FolderIcons, settings.FolderIcon = settings.FolderIcon, nil
  return settings
end
