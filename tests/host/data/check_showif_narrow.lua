-- A ShowIf argument read as UInt16 from a 1-byte PDT_UNSIGNED_CHAR property.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = { PropertyIds = { { Id = prop(1, 52), Type = "UInt16" } },
                 Function = function(kind) return true end } },
  }
end
