-- Raises a table as its error object.
local good = GetStaticData
function GetStaticData()
  if Hostile() then error(setmetatable({}, { __tostring = function() while true do end end })) end
  return good()
end
