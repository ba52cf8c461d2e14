-- Static data that contains itself.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  local timers = { Type = "timers" }
  timers.SubData = { Again = timers }
  return { Timers = timers }
end
