-- A ShowIf function that recurses without end.
local good = GetParametersFromChannelTypeId
function GetParametersFromChannelTypeId(typeId)
  if Hostile() then
    local function deeper(n) return deeper(n + 1) + 1 end
    return { { Key = "State", Type = "Bool", Property = { InterfaceObjectId = 0, PropertyId = 60 },
               ShowIf = { PropertyIds = { { Id = { InterfaceObjectId = 0, PropertyId = 60 }, Type = "Bool" } },
                          Function = function(on) return deeper(1) end } } }
  end
  return good(typeId)
end
