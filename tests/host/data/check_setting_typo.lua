-- A setting name with a typo.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local allSettings = GetPropertyIds
function GetPropertyIds()
  local settings = allSettings()
  settings.FolderIcons, settings.FolderIcon = settings.FolderIcon, nil
  return settings
end
