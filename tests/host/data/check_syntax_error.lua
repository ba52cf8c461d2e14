-- A typo that stops the script from loading.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

local broken = = 1
