-- The library through require instead of the global.
local good = GetStaticData
function GetStaticData()
  if Hostile() then require("io").open("hostile-was-here", "w") end
  return good()
end
