-- A static-data name and a type with NUL bytes beside a clean entry.
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    return { ["Weather\0x"] = { Type = "weather" }, Timers = { Type = "timers\0x" } }
  end
  return good()
end
