-- A URN function that raises an error.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetChannelUrnByTypeId(typeId)
  if typeId == SWITCH then
    error("no channel URN for " .. typeId)
  end
end
