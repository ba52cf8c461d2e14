-- Raises nil as its error object.
local good = GetStaticData
function GetStaticData()
  if Hostile() then error(nil) end
  return good()
end
