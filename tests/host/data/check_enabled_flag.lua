-- EnabledProperty given as a flag instead of a property.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    Weather = { Type = "weather", EnabledProperty = true },
  }
end
