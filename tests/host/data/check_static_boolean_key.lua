-- Static data with boolean keys: in the static-data table and in an entry.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    [true] = { Type = "clock" },
    Weather = {
      Type = "weather",
      [false] = 1,
      EnabledProperty = prop(2, 70),
      Parameters = { { Key = "City", Type = "Text", Property = prop(2, 71) } },
    },
  }
end
