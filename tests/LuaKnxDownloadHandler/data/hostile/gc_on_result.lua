-- A finalizer on a returned table, set after the metatable, would run at collection.
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    local meta = {}
    local result = setmetatable(good(), meta)
    meta.__gc = function() while true do end end
    return result
  end
  return good()
end
