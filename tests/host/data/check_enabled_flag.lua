-- EnabledProperty given as a flag instead of a property.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    Weather = { Type = "weather", EnabledProperty = true },
  }
end
