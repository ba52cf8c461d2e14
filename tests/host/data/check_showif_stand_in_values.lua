-- A ShowIf function that shows what it gets without a dump.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetParametersFromChannelTypeId(typeId)
  if typeId ~= SWITCH then return {} end
  return {
    { Key = "State", Type = "Bool", Property = prop(1, 53),
      ShowIf = {
        PropertyIds = { { Id = prop(1, 60), Type = "Text" }, { Id = prop(1, 61), Type = "Name" },
                        { Id = prop(1, 62), Type = "UInt8" }, { Id = prop(1, 63), Type = "Bool" },
                        { Id = prop(1, 64), Type = "GENERIC_20" } },
        Function = function(text, name, number, flag, generic)
          error(string.format("%q %q %s %s %q", text, name, number, flag, generic), 0)
        end,
      } },
  }
end
