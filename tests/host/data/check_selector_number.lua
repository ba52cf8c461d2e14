-- IsThereUrnsByPropertyIndex answers with a number.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function IsThereUrnsByPropertyIndex(typeId)
  return typeId == DIMMER and 1 or false
end
