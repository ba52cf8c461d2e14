-- A misspelt field that the property table then lacks: one mistake.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "State", Type = "Bool", Property = { InterfaceObjectId = 1, PropertyID = 53 } } }
end
