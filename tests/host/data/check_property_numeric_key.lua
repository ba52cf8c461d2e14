-- A Property table written as a list.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "State", Type = "Bool", Property = { 1, 53 } } }
end
