-- A static-data entry whose EnabledProperty is written as a list.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    Weather = {
      Type = "weather",
      EnabledProperty = { 2, 70 },
      Parameters = { { Key = "City", Type = "Text", Property = prop(2, 71) } },
    },
  }
end
