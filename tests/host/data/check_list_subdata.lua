-- SubData written as a list.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    Timers = {
      Type = "timers",
      SubData = { { Type = "timer" } },
    },
  }
end
