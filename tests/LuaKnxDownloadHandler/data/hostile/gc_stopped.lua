-- Would stop the collector after leaving garbage, so that it piles up from one
-- download to the next.
pcall(collectgarbage, "stop")
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    local garbage = {}
    for i = 1, 2000 do garbage[i] = { i, tostring(i) } end
    collectgarbage("stop")
  end
  return good()
end
