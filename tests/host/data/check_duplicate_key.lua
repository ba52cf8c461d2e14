-- Two parameters under one key.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53) },
    { Key = "State", Type = "UInt8", Property = prop(1, 54) },
  }
end
