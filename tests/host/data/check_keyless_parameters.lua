-- Two parameters without Key, the second with a misspelt field.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53) },
    { Type = "UInt8", Property = prop(1, 54) },
    { Type = "UInt8", Propery = prop(1, 55) },
  }
end
