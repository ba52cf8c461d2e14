-- A UInt8 parameter read from a 4-byte PDT_UNSIGNED_LONG property.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "Colour", Type = "UInt8", Property = prop(1, 55) } }
end
