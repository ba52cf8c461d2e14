-- A ShowIf argument from a property the download does not hold.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = { PropertyIds = { { Id = prop(1, 98), Type = "UInt8" } },
                 Function = function(kind) return true end } },
  }
end
