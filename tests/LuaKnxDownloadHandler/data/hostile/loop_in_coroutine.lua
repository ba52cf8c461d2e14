-- Loops inside coroutines, each resumed from a loop that ignores their failure.
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    while true do
      coroutine.resume(coroutine.create(function() while true do end end))
    end
  end
  return good()
end
