-- A parameter table with a key that is neither a string nor a number.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "State", Type = "Bool", Property = prop(1, 53), [true] = 1 } }
end
