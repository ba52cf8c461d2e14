-- Would write a file of the device.
local good = GetStaticData
function GetStaticData()
  if Hostile() then io.open("hostile-was-here", "w"):write("x") end
  return good()
end
