-- A small, clean description script for the check-script tests. Each
-- check_*.lua script loads it and then breaks one thing.
--
-- Interface object 0 holds the settings and the folder arrays, object 1 one
-- array per function property, object 2 the static data.

function prop(object, id)
  return { InterfaceObjectId = object, PropertyId = id }
end

function GetPropertyIds()
  return {
    MaxFunctionPerFolder = prop(0, 10),
    MaxNameCharCount = prop(0, 11),
    MaxTextCharCount = prop(0, 12),
    MaxUrlCharCount = prop(0, 13),
    ShowRootFolder = prop(0, 20),
    ShowOutdoorTemp = prop(0, 21),
    ShowIndoorTemp = prop(0, 22),
    ShowDateTime = prop(0, 23),
    UseTVK = prop(0, 24),
    DcsType = prop(0, 25),
    UseDcsFloorcall = prop(0, 26),
    DcsFloorCallNameOffset = prop(0, 27),
    DcsFloorCallMelody = prop(0, 28),
    UseWeather = prop(0, 29),
    UseTimers = prop(0, 30),
    UseHeatingTimers = prop(0, 31),
    ResetUserData = prop(0, 32),
    NumberOfFolders = prop(0, 40),
    FolderNameOffset = prop(0, 41),
    FolderIcon = prop(0, 42),
    FolderShowOnHome = prop(0, 43),
    NumberFuncPerFolder = prop(0, 44),
    ChannelType = prop(1, 50),
    FunctionNameOffset = prop(1, 51),
  }
end

SWITCH, DIMMER = 1, 2

local switchUrns = { "urn:test:function:switch", "urn:test:channel:switch" }
-- A dimmer's URNs and template depend on its kind, held in property 52.
local dimmerKinds = {
  [0] = { "urn:test:function:dimmer", "urn:test:channel:dimmer", "1" },
  [1] = { "urn:test:function:dimmer-rgb", "urn:test:channel:dimmer-rgb", "2" },
}

function IsThereUrnsByPropertyIndex(typeId)
  return typeId == DIMMER
end

function GetPropertyIndexForUrns(typeId)
  return prop(1, 52)
end

function GetFunctionUrnByTypeId(typeId)
  if typeId == SWITCH then return switchUrns[1] end
end

function GetChannelUrnByTypeId(typeId)
  if typeId == SWITCH then return switchUrns[2] end
end

function GetFunctionUrnByTypeIdAndPropertyIndex(typeId, kind)
  local entry = dimmerKinds[kind]
  return entry and entry[1]
end

function GetChannelUrnByTypeIdAndPropertyIndex(typeId, kind)
  local entry = dimmerKinds[kind]
  return entry and entry[2]
end

function GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, kind)
  local entry = dimmerKinds[kind]
  return entry and entry[3] or ""
end

function GetParametersFromChannelTypeId(typeId)
  if typeId == SWITCH then
    return { { Key = "State", Type = "Bool", Property = prop(1, 53) } }
  elseif typeId == DIMMER then
    return {
      { Key = "State", Type = "Bool", Property = prop(1, 53) },
      -- Only an RGB dimmer (kind 1) has a colour.
      { Key = "Colour", Type = "UInt32", Property = prop(1, 55),
        ShowIf = {
          PropertyIds = { { Id = prop(1, 52), Type = "UInt8" } },
          Function = function(kind) return kind == 1 end,
        } },
    }
  end
  return {}
end

function GetStaticData()
  return {
    Weather = {
      Type = "weather",
      EnabledProperty = prop(2, 70),
      Parameters = { { Key = "City", Type = "Text", Property = prop(2, 71) } },
    },
  }
end

function HandleDcsType(type)
end
