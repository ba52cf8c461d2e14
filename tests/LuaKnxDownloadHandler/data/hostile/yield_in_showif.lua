-- Yields from a ShowIf function.
local good = GetParametersFromChannelTypeId
function GetParametersFromChannelTypeId(typeId)
  if Hostile() then
    return { { Key = "State", Type = "Bool", Property = { InterfaceObjectId = 0, PropertyId = 60 },
               ShowIf = { PropertyIds = { { Id = { InterfaceObjectId = 0, PropertyId = 60 }, Type = "Bool" } },
                          Function = function(on) return coroutine.yield(on) end } } }
  end
  return good(typeId)
end
