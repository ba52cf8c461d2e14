-- Two parameter keys that differ only after a NUL byte.
local good = GetParametersFromChannelTypeId
function GetParametersFromChannelTypeId(typeId)
  if Hostile() then
    return {
      { Key = "P\0one", Type = "Bool", Property = { InterfaceObjectId = 0, PropertyId = 60 } },
      { Key = "P\0two", Type = "Bool", Property = { InterfaceObjectId = 0, PropertyId = 60 } },
    }
  end
  return good(typeId)
end
