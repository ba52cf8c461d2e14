-- A URN with a NUL byte in it.
local good = GetFunctionUrnByTypeId
function GetFunctionUrnByTypeId(typeId)
  if Hostile() then return "urn:demo:function:switch\0hidden" end
  return good(typeId)
end
