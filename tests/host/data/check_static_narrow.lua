-- A nested static-data parameter read as Float16 from a 1-byte property.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  return {
    Weather = {
      Type = "weather",
      Parameters = { { Key = "City", Type = "Text", Property = prop(2, 71) } },
      SubData = {
        Today = { Type = "day", Parameters = { { Key = "Low", Type = "Float16", Property = prop(2, 70) } } },
      },
    },
  }
end
