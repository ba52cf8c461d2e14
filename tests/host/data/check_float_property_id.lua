-- A property id written as a float.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "State", Type = "Bool", Property = { InterfaceObjectId = 1, PropertyId = 53.0 } } }
end
