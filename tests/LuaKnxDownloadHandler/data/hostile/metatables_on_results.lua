-- Returned tables whose metamethods would never return, were they run.
local good = GetParametersFromChannelTypeId
local function trap() while true do end end
local traps = { __index = trap, __newindex = trap, __pairs = trap, __len = trap, __eq = trap,
                __lt = trap, __le = trap, __concat = trap, __call = trap, __tostring = trap,
                __name = "trap", __close = trap, __mode = "k" }
function GetParametersFromChannelTypeId(typeId)
  if Hostile() then
    local property = setmetatable({ InterfaceObjectId = 0, PropertyId = 60 }, traps)
    local parameter = setmetatable({ Key = "State", Type = "Bool", Property = property }, traps)
    return setmetatable({ parameter }, traps)
  end
  return good(typeId)
end
