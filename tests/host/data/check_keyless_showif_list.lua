-- A parameter without Key whose ShowIf is written as a list.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53) },
    { Type = "UInt8", Property = prop(1, 54), ShowIf = { function() return true end } },
  }
end
