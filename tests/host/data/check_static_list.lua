-- Static data built as a list.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  local data = {}
  table.insert(data, { Type = "weather" })
  return data
end
