-- Would run a program on the device and read its output.
local good = GetStaticData
function GetStaticData()
  if Hostile() then io.popen("ls"):read("a") end
  return good()
end
