-- Never returns from a URN function.
local good = GetFunctionUrnByTypeId
function GetFunctionUrnByTypeId(typeId)
  if Hostile() then while true do end end
  return good(typeId)
end
