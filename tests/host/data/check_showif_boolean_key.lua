-- A ShowIf PropertyIds entry with a boolean key.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = {
        PropertyIds = { { Id = prop(1, 52), Type = "UInt8", [false] = "Bool" } },
        Function = function(kind) return kind == 1 end,
      } },
  }
end
