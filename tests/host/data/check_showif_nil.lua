-- A ShowIf function that forgets to return.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = {
        PropertyIds = { { Id = prop(1, 52), Type = "UInt8" } },
        Function = function(kind) local shown = kind == 1 end,
      } },
  }
end
