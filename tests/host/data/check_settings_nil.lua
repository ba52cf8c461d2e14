-- GetPropertyIds forgets to return its table.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetPropertyIds()
  local settings = { MaxNameCharCount = prop(0, 11) }
end
