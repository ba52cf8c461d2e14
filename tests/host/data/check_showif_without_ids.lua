-- A ShowIf function that is never called.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = {
        Function = function(kind) return kind == 1 end,
      } },
  }
end
