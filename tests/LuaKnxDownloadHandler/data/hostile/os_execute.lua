-- Would run a program on the device.
local good = GetStaticData
function GetStaticData()
  if Hostile() then os.execute("touch hostile-was-here") end
  return good()
end
