-- A parameter without Key whose value type is misspelt.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53) },
    { Type = "Uint8", Property = prop(1, 54) },
  }
end
