-- A typo that stops the script from loading.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

local broken = = 1
