-- GetStaticData is gone.
dofile((debug.getinfo(1, "S").source:match("^@(.*/)") or "") .. "check_base.lua")

GetStaticData = nil
