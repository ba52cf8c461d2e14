-- Yields from a script function the plug-in called, which is no coroutine.
local good = GetStaticData
function GetStaticData()
  if Hostile() then coroutine.yield(1) end
  return good()
end
