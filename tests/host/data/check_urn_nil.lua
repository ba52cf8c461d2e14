-- The channel URN of a switch is forgotten.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetChannelUrnByTypeId(typeId)
  return nil
end
