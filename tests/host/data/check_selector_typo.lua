-- The URN selector with a misspelt PropertyId.
dofile((select(1, ...):match("^(.*/)") or "") .. "check_base.lua")

function GetPropertyIndexForUrns(typeId)
  return { InterfaceObjectId = 1, PropertyID = 52 }
end
