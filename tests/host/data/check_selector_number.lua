-- IsThereUrnsByPropertyIndex answers with a number.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function IsThereUrnsByPropertyIndex(typeId)
  return typeId == DIMMER and 1 or false
end
