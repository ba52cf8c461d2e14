-- A dimmer parameter from an array with one element, while dimmers sit in slots 1 and 2.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= DIMMER then return {} end
  return { { Key = "Icon", Type = "UInt16", Property = prop(0, 42) } }
end
