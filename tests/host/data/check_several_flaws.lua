-- Several flaws in one parameter table, which the plug-in walks in no defined order.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "Power", Type = "Float16", Digit = 1, Colour = 2, Digits = 2.0, Size = 3,
             Property = prop(1, 53) } }
end
