-- A value type spelt in lower case.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "State", Type = "bool", Property = prop(1, 53) } }
end
