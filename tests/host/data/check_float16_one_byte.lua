-- A Float16 parameter read from a 1-byte PDT_UNSIGNED_CHAR property.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= DIMMER then return {} end
  return { { Key = "Setpoint", Type = "Float16", Digits = 1, Property = prop(1, 52) } }
end
