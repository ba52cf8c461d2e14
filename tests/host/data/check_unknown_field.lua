-- A misspelt field name.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return { { Key = "Power", Type = "Float16", Digit = 1, Property = prop(1, 53) } }
end
