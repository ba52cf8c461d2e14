-- Description script of the demo touch panel.
--
-- Interface object 0 holds the device settings and the folder arrays,
-- object 1 the per-function arrays (one element per function slot),
-- object 2 the static data (weather and timers).

local DEVICE, FUNCTIONS, STATIC = 0, 1, 2

local function prop(object, id)
  return { InterfaceObjectId = object, PropertyId = id }
end

function GetPropertyIds()
  return {
    MaxFunctionPerFolder   = prop(DEVICE, 10),
    MaxNameCharCount       = prop(DEVICE, 11),
    MaxTextCharCount       = prop(DEVICE, 12),
    MaxUrlCharCount        = prop(DEVICE, 13),
    ShowRootFolder         = prop(DEVICE, 20),
    ShowOutdoorTemp        = prop(DEVICE, 21),
    ShowIndoorTemp         = prop(DEVICE, 22),
    ShowDateTime           = prop(DEVICE, 23),
    UseTVK                 = prop(DEVICE, 24),
    DcsType                = prop(DEVICE, 25),
    UseDcsFloorcall        = prop(DEVICE, 26),
    DcsFloorCallNameOffset = prop(DEVICE, 27),
    DcsFloorCallMelody     = prop(DEVICE, 28),
    UseWeather             = prop(DEVICE, 29),
    UseTimers              = prop(DEVICE, 30),
    UseHeatingTimers       = prop(DEVICE, 31),
    ResetUserData          = prop(DEVICE, 32),
    NumberOfFolders        = prop(DEVICE, 40),
    FolderNameOffset       = prop(DEVICE, 41),
    FolderIcon             = prop(DEVICE, 42),
    FolderShowOnHome       = prop(DEVICE, 43),
    NumberFuncPerFolder    = prop(DEVICE, 44),
    ChannelType            = prop(FUNCTIONS, 50),
    FunctionNameOffset     = prop(FUNCTIONS, 51),
  }
end

-- Channel types of the application program.
local SWITCH, DIMMER, BLINDS, HEATING, SCENE = 1, 2, 3, 4, 5

local urns = {
  [SWITCH]  = { "urn:korvex:function:switch",  "urn:korvex:channel:switching" },
  [BLINDS]  = { "urn:korvex:function:blinds",  "urn:korvex:channel:blinds" },
  [HEATING] = { "urn:korvex:function:heating", "urn:korvex:channel:heating" },
  [SCENE]   = { "urn:korvex:function:scene",   "urn:korvex:channel:scene" },
}

-- A dimmer's URNs and template depend on its kind, held in property 52.
local dimmerKinds = {
  [0] = { "urn:korvex:function:dimmer",      "urn:korvex:channel:dimming",      "1" },
  [1] = { "urn:korvex:function:dimmer-rgb",  "urn:korvex:channel:dimming-rgb",  "2" },
  [2] = { "urn:korvex:function:dimmer-tw",   "urn:korvex:channel:dimming-tw",   "3" },
}

function IsThereUrnsByPropertyIndex(typeId)
  return typeId == DIMMER
end

function GetPropertyIndexForUrns(typeId)
  return prop(FUNCTIONS, 52)
end

function GetFunctionUrnByTypeId(typeId)
  local entry = urns[typeId]
  return entry and entry[1] or nil
end

function GetChannelUrnByTypeId(typeId)
  local entry = urns[typeId]
  return entry and entry[2] or nil
end

function GetFunctionUrnByTypeIdAndPropertyIndex(typeId, kind)
  local entry = dimmerKinds[kind]
  return entry and entry[1] or nil
end

function GetChannelUrnByTypeIdAndPropertyIndex(typeId, kind)
  local entry = dimmerKinds[kind]
  return entry and entry[2] or nil
end

function GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, kind)
  local entry = dimmerKinds[kind]
  return entry and entry[3] or ""
end

local parameters = {
  [SWITCH] = {
    { Key = "State", Type = "Bool", Property = prop(FUNCTIONS, 53) },
  },
  [DIMMER] = {
    { Key = "State", Type = "Bool", Property = prop(FUNCTIONS, 53) },
    { Key = "Brightness", Type = "UInt8", Property = prop(FUNCTIONS, 54) },
  },
  [BLINDS] = {
    { Key = "Position", Type = "UInt8", Property = prop(FUNCTIONS, 55) },
    { Key = "Inverted", Type = "Bool", Property = prop(FUNCTIONS, 61) },
  },
  [HEATING] = {
    { Key = "Setpoint", Type = "Float16", Digits = 1, Property = prop(FUNCTIONS, 56) },
    { Key = "Mode", Type = "UInt8", Property = prop(FUNCTIONS, 57) },
    -- The eco setpoint only means something in eco mode (2).
    { Key = "EcoSetpoint", Type = "Float16", Digits = 1, Property = prop(FUNCTIONS, 58),
      ShowIf = {
        PropertyIds = { { Id = prop(FUNCTIONS, 57), Type = "UInt8" } },
        Function = function(mode) return mode == 2 end,
      } },
  },
  [SCENE] = {
    { Key = "Scene", Type = "Name", Property = prop(FUNCTIONS, 60) },
    { Key = "Number", Type = "UInt8", Property = prop(FUNCTIONS, 59) },
  },
}

function GetParametersFromChannelTypeId(typeId)
  return parameters[typeId] or {}
end

function GetStaticData()
  return {
    Weather = {
      Type = "weather",
      EnabledProperty = prop(STATIC, 70),
      Parameters = {
        { Key = "City", Type = "Text", Property = prop(STATIC, 71) },
        { Key = "Url", Type = "Url", Property = prop(STATIC, 72) },
        { Key = "OutdoorTemperature", Type = "Float16", Digits = 1, Property = prop(STATIC, 73) },
      },
    },
    Timers = {
      Type = "timers",
      Parameters = {
        { Key = "Count", Type = "UInt8", Property = prop(STATIC, 74) },
      },
      SubData = {
        Morning = {
          Type = "timer",
          EnabledProperty = prop(STATIC, 75),
          Parameters = {
            { Key = "Hour", Type = "UInt8", Property = prop(STATIC, 76) },
            { Key = "Minute", Type = "UInt8", Property = prop(STATIC, 77) },
          },
        },
        Evening = {
          Type = "timer",
          EnabledProperty = prop(STATIC, 78),
          Parameters = {
            { Key = "Hour", Type = "UInt8", Property = prop(STATIC, 79) },
            { Key = "Minute", Type = "UInt8", Property = prop(STATIC, 80) },
          },
        },
      },
    },
  }
end

-- The door-communication type decides nothing in this demo; a real device
-- would pick its floor-call templates here.
local dcsType = 0
function HandleDcsType(type)
  dcsType = type
end
