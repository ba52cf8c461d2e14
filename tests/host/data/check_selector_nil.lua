-- The channel URN of an RGB dimmer (kind 1) is forgotten.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetChannelUrnByTypeIdAndPropertyIndex(typeId, kind)
  if kind == 0 then return "urn:test:channel:dimmer" end
end
