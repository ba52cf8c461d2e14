-- A URN function that raises an error.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetChannelUrnByTypeId(typeId)
  if typeId == SWITCH then
    error("no channel URN for " .. typeId)
  end
end
