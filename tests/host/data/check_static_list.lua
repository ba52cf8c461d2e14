-- Static data built as a list.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

function GetStaticData()
  local data = {}
  table.insert(data, { Type = "weather" })
  return data
end
