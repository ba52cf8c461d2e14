-- Catches the budget's error and carries on looping.
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    while true do pcall(function() while true do end end) end
  end
  return good()
end
