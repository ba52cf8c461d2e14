-- Stops the collector, then leaves about 250 KB of garbage on every download.
collectgarbage("stop")
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    collectgarbage("stop")
    local garbage = {}
    for i = 1, 2000 do garbage[i] = { i, tostring(i) } end
  end
  return good()
end
