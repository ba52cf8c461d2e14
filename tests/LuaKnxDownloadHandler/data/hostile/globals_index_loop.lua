-- A global the plug-in calls is looked up through an __index on _G that never returns.
local saved = GetStaticData
GetStaticData = nil
setmetatable(_G, { __index = function(_, name)
  if name == "GetStaticData" then
    if Hostile() then while true do end end
    return saved
  end
end })
