-- A parameter list with an entry under a boolean key, which the plug-in reads
-- like any other.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { [true] = { Key = "State", Type = "Bool", Property = prop(1, 53) } }
end
