-- GetPropertyIds forgets to return its table.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetPropertyIds()
  local settings = { MaxNameCharCount = prop(0, 11) }
end
