-- Takes memory until none is left, catching the failure.
local good = GetStaticData
function GetStaticData()
  if Hostile() then
    pcall(function()
      local hoard = {}
      while true do hoard[#hoard + 1] = string.rep("x", 65536) .. #hoard end
    end)
  end
  return good()
end
