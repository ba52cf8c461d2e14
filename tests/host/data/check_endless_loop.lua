-- Static data that never comes back.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  local data = {}
  while true do
    data.Weather = { Type = "weather" }
  end
  return data
end
