-- The device of the script golden test (ets_xml_script_golden_test.cpp): the
-- download is the one of the fake-bridge golden test (ets_xml_golden_test.cpp),
-- and this script gives the answers that test sets on its fake bridge.
--
-- Some answers are deliberately imperfect, as edge cases of the document:
-- channel type 2 has no URNs (the calls fail), "Ignored" has an unknown type,
-- "Wide" has Digits 258, and two ShowIf rules list a "Url" entry.
--
-- Interface objects: 0 limits and device settings, 1 folders, 2 function slots
-- (four per folder, one array element per slot), 3 static data.
--
-- Parameter lists are written in the same order as in the fake-bridge test,
-- not sorted: the plug-in sorts them by key, which is where the two expected
-- documents differ. Static data is listed out of order on purpose as well.

local SETTINGS, FOLDERS, FUNCTIONS, STATIC = 0, 1, 2, 3

local function prop(object, id)
  return { InterfaceObjectId = object, PropertyId = id }
end

-- Function arrays (object 2).
local STATE = prop(FUNCTIONS, 10)
local SCENES = prop(FUNCTIONS, 11)
local BRIGHTNESS = prop(FUNCTIONS, 12)
local BYTES = prop(FUNCTIONS, 13)
local WORDS = prop(FUNCTIONS, 14)
local DWORDS = prop(FUNCTIONS, 15)
local TEXTS = prop(FUNCTIONS, 16)
local URLS = prop(FUNCTIONS, 17)
local CODES = prop(FUNCTIONS, 18)
local KNX_FLOATS = prop(FUNCTIONS, 19)
local IEEE_FLOATS = prop(FUNCTIONS, 20)
local SELECTOR = prop(FUNCTIONS, 21)

-- Static data (object 3).
local ON = prop(STATIC, 1)
local OFF = prop(STATIC, 2)
local INTERVAL = prop(STATIC, 3)
local LOCATION = prop(STATIC, 4)
local OFFSET = prop(STATIC, 5)
local BLANK_NAME = prop(STATIC, 6)

-- The single-precision value nearest to x, as the plug-in hands a decoded
-- float to a ShowIf function (widened to a double).
local function single(x)
  return (string.unpack("<f", string.pack("<f", x)))
end

-- True when the arguments are exactly the expected values: same count, same
-- type and, for numbers, same subtype (the integer 0 is not the float 0.0).
-- The ShowIf rules below answer from it, so that a wrong argument shows up in
-- the document as a parameter that appears or disappears.
local function argsAre(expected, ...)
  local count = select("#", ...)
  if count ~= #expected then
    return false
  end
  for i = 1, count do
    local actual, wanted = select(i, ...), expected[i]
    if type(actual) ~= type(wanted) or math.type(actual) ~= math.type(wanted)
        or actual ~= wanted then
      return false
    end
  end
  return true
end

-- What HandleDcsType was told in the current download; cleared when a
-- download starts (GetPropertyIds is always its first call).
local dcsType = nil

function GetPropertyIds()
  dcsType = nil
  return {
    MaxFunctionPerFolder = prop(SETTINGS, 11),
    MaxNameCharCount = prop(SETTINGS, 12),
    MaxTextCharCount = prop(SETTINGS, 13),
    MaxUrlCharCount = prop(SETTINGS, 14),
    ShowRootFolder = prop(SETTINGS, 30),
    ShowOutdoorTemp = prop(SETTINGS, 31),
    ShowIndoorTemp = prop(SETTINGS, 32),
    ShowDateTime = prop(SETTINGS, 33),
    UseTVK = prop(SETTINGS, 34),
    DcsType = prop(SETTINGS, 35),
    UseDcsFloorcall = prop(SETTINGS, 36),
    DcsFloorCallNameOffset = prop(SETTINGS, 37),
    DcsFloorCallMelody = prop(SETTINGS, 38),
    UseWeather = prop(SETTINGS, 39),
    UseTimers = prop(SETTINGS, 40),
    UseHeatingTimers = prop(SETTINGS, 41),
    ResetUserData = prop(SETTINGS, 42),
    NumberOfFolders = prop(FOLDERS, 1),
    FolderNameOffset = prop(FOLDERS, 2),
    FolderIcon = prop(FOLDERS, 3),
    FolderShowOnHome = prop(FOLDERS, 4),
    NumberFuncPerFolder = prop(FOLDERS, 5),
    ChannelType = prop(FUNCTIONS, 1),
    FunctionNameOffset = prop(FUNCTIONS, 2),
  }
end

-- The download holds DcsType 0 with the floor call on, so the plug-in passes
-- 10. The document keeps the 0 it read; the thermostat's function URN below
-- is given only for type 10, so the value received shows in the document.
function HandleDcsType(type)
  dcsType = type
end

-- Channel types: 1 light, 2 a type without URNs, 3 blinds, 4 heating. Blinds
-- and heating choose their URNs by the slot's element of SELECTOR.
local LIGHT, BARE, BLINDS, HEATING = 1, 2, 3, 4

function IsThereUrnsByPropertyIndex(typeId)
  return typeId == BLINDS or typeId == HEATING
end

function GetPropertyIndexForUrns(typeId)
  return SELECTOR
end

-- Type 2 has no URNs: the calls fail, and the plug-in writes "Unsupported".
-- Level 0 keeps the script position out of the logged message.
function GetFunctionUrnByTypeId(typeId)
  if typeId == LIGHT then
    return "urn:knx:fb:light"
  end
  error("no function URN for channel type " .. typeId, 0)
end

function GetChannelUrnByTypeId(typeId)
  if typeId == LIGHT then
    return "urn:knx:ch:switch"
  end
  error("no channel URN for channel type " .. typeId, 0)
end

function GetFunctionUrnByTypeIdAndPropertyIndex(typeId, selector)
  if typeId == BLINDS and selector == 2 then
    return "urn:knx:fb:blind"
  end
  if typeId == HEATING and selector == 0 and dcsType == 10 then
    return "urn:knx:fb:heating"
  end
  return "Unsupported"
end

-- Heating has a function URN only; it says "Unsupported" itself here, where
-- type 2 above leaves that to the failed call.
function GetChannelUrnByTypeIdAndPropertyIndex(typeId, selector)
  if typeId == BLINDS and selector == 2 then
    return "urn:knx:ch:blind"
  end
  return "Unsupported"
end

function GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, selector)
  if typeId == BLINDS and selector == 2 then
    return "1"
  end
  return ""
end

local parameters = {
  [LIGHT] = {
    { Key = "State", Type = "Bool", Property = STATE },
    { Key = "Scene", Type = "Name", Property = SCENES },
    {
      Key = "Brightness", Type = "UInt8", Property = BRIGHTNESS,
      -- Slot 0: the state is on; the URL passes no argument, so the float
      -- and the blank scene name ("DefaultString") follow without a gap.
      ShowIf = {
        PropertyIds = {
          { Id = STATE, Type = "Bool" },
          { Id = URLS, Type = "Url" },
          { Id = KNX_FLOATS, Type = "Float16" },
          { Id = SCENES, Type = "Name" },
        },
        Function = function(...)
          return argsAre({ true, 0.0, "DefaultString" }, ...)
        end,
      },
    },
  },
  [BARE] = {
    { Key = "Byte", Type = "UInt8", Property = BYTES },
    { Key = "SignedByte", Type = "Int8", Property = BYTES },
    { Key = "Word", Type = "UInt16", Property = WORDS },
    { Key = "SignedWord", Type = "Int16", Property = WORDS },
    {
      Key = "Hidden", Type = "UInt32", Property = DWORDS,
      -- Slot 1, one argument of every kind: left out exactly when the values
      -- arrive as the download holds them.
      ShowIf = {
        PropertyIds = {
          { Id = DWORDS, Type = "UInt32" },
          { Id = TEXTS, Type = "Text" },
          { Id = URLS, Type = "Url" },
          { Id = BYTES, Type = "Int8" },
          { Id = WORDS, Type = "Int16" },
          { Id = DWORDS, Type = "Int32" },
          { Id = BYTES, Type = "UInt8" },
          { Id = WORDS, Type = "UInt16" },
          { Id = CODES, Type = "GENERIC_20" },
          { Id = STATE, Type = "Bool" },
        },
        Function = function(...)
          return not argsAre({ 4294967295, "Free text for the seco", -56, -200, -1, 200, 65336,
                               "GEN-20 value", false }, ...)
        end,
      },
    },
    { Key = "DoubleWord", Type = "UInt32", Property = DWORDS },
    { Key = "SignedDoubleWord", Type = "Int32", Property = DWORDS },
    { Key = "Note", Type = "Text", Property = TEXTS },
    { Key = "Camera", Type = "Url", Property = URLS },
    { Key = "Code", Type = "GENERIC_20", Property = CODES },
    { Key = "Ignored", Type = "Percent", Property = BYTES },
  },
  [BLINDS] = {
    { Key = "Position", Type = "Float16", Digits = 1, Property = KNX_FLOATS },
    { Key = "Angle", Type = "Float32", Digits = 3, Property = IEEE_FLOATS },
    { Key = "Missing", Type = "Float32", Digits = 2, Property = prop(FUNCTIONS, 99) },
  },
  [HEATING] = {
    { Key = "Setpoint", Type = "Float16", Digits = 0, Property = KNX_FLOATS },
    -- Only the low 8 bits of Digits count: two decimals.
    { Key = "Wide", Type = "Float16", Digits = 258, Property = KNX_FLOATS },
    { Key = "Eco", Type = "Bool", Property = prop(FUNCTIONS, 98) },
  },
}

function GetParametersFromChannelTypeId(typeId)
  return parameters[typeId] or {}
end

function GetStaticData()
  return {
    Weather = {
      Type = "weather",
      EnabledProperty = ON,
      Parameters = {
        { Key = "Location", Type = "Text", Property = LOCATION },
        {
          Key = "Offset", Type = "Float16", Digits = 2, Property = OFFSET,
          -- Whole properties: the offset (0x87FF, -0.01), the blank caption,
          -- the interval and the enabling flag.
          ShowIf = {
            PropertyIds = {
              { Id = OFFSET, Type = "Float16" },
              { Id = BLANK_NAME, Type = "Name" },
              { Id = INTERVAL, Type = "UInt16" },
              { Id = ON, Type = "Bool" },
            },
            Function = function(...)
              return argsAre({ single(-0.01), "DefaultString", 600, true }, ...)
            end,
          },
        },
      },
    },
    Clock = {
      Type = "clock",
      Parameters = {
        { Key = "Caption", Type = "Name", Property = BLANK_NAME },
        { Key = "Interval", Type = "UInt16", Property = INTERVAL },
        -- No such property: the document names the wrong id (12).
        { Key = "Title", Type = "Name", Property = prop(STATIC, 12) },
      },
      SubData = {
        -- Enabled by a property that does not exist: left out.
        Zone = { Type = "zone", EnabledProperty = prop(STATIC, 77) },
        Display = {
          Type = "display",
          EnabledProperty = ON,
          Parameters = { { Key = "Visible", Type = "Bool", Property = ON } },
        },
      },
    },
    Alarm = {
      Type = "alarm",
      EnabledProperty = OFF,
      Parameters = { { Key = "Interval", Type = "UInt16", Property = INTERVAL } },
    },
  }
end
