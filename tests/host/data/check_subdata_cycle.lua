-- Static data that contains itself.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  local timers = { Type = "timers" }
  timers.SubData = { Again = timers }
  return { Timers = timers }
end
