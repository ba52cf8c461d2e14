-- Would switch the execution budget's hook off.
local good = GetStaticData
function GetStaticData()
  if Hostile() then debug.sethook() end
  return good()
end
