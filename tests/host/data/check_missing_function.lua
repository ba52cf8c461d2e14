-- GetStaticData is gone.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

GetStaticData = nil
