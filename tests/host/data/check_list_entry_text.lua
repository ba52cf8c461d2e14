-- A parameter list with a text among its parameter tables.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "State", Type = "Bool", Property = prop(1, 53) }, "Level" }
end
