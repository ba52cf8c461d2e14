-- A finalizer that never returns would hang the collection or lua_close.
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    setmetatable({}, { __gc = function() while true do end end })
  end
  return good()
end
