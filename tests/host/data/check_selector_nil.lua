-- The channel URN of an RGB dimmer (kind 1) is forgotten.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetChannelUrnByTypeIdAndPropertyIndex(typeId, kind)
  if kind == 0 then return "urn:test:channel:dimmer" end
end
