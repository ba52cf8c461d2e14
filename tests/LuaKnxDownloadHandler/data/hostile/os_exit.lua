-- Would end the host process at once, without a log line.
local good = GetStaticData
function GetStaticData()
  if Hostile() then os.exit(3) end
  return good()
end
