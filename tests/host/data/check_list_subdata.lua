-- SubData written as a list.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    Timers = {
      Type = "timers",
      SubData = { { Type = "timer" } },
    },
  }
end
