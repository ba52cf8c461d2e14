-- A ShowIf rule that expects a Url value.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = {
        PropertyIds = { { Id = prop(1, 52), Type = "Url" }, { Id = prop(1, 53), Type = "Bool" } },
        Function = function(on) return on end,
      } },
  }
end
