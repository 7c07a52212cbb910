-- One exchange of a member with the bucket that its fleet has in common: it settles what the member
-- gives back and owes, and leases tokens to it. The bucket is the hash KEYS[1], by GCRA on this
-- server's clock, in microseconds:
--
--   tat         when the bucket is empty: tokens are there for the time since then
--   born        when it was made; a new one is empty
--   idle        the time whose tokens nobody drew, and which it could not hold
--   not_before  until when the provider wants to be left alone
--   members, most, in_need, held   sums over the members, and the largest membership ever
--   swept       when the sums were last made anew
--   m:<id>      a member: last seen, tokens held, whether it is in need
local SECOND = 1000000
local SWEEP, STALE, LEASE, DEBT, EXPIRY = SECOND, 10 * SECOND, 2.5 * SECOND, 60 * SECOND, 3600

local key, me = KEYS[1], 'm:' .. ARGV[1]
local given = {}
for at = 2, #ARGV do given[#given + 1] = tonumber(ARGV[at]) end
local interval, burst, slice, held, wanted, returned, in_demand, owed, cut_off, born, idle, alone =
  unpack(given)
local time = redis.call('TIME')
local now = time[1] * SECOND + time[2]

local NAMES = {'tat', 'born', 'idle', 'not_before', 'members', 'most', 'in_need', 'held', 'swept', me}
local state = {}
for at, text in ipairs(redis.call('HMGET', key, unpack(NAMES))) do
  state[NAMES[at]] = text and (at == #NAMES and text or tonumber(string.match(text, '^%-?%d+$')))
end

-- What a member's entry came to at a moment: tokens leased, which lapse when it is silent, and whether
-- it was in need; nothing for one that has gone.
local function read(entry, moment)
  local seen, has, need = string.match(entry, '^(%d+) (%d+) (%d)$')
  if not seen or math.abs(moment - seen) > STALE then return nil end
  return moment - seen > LEASE and 0 or tonumber(has), tonumber(need)
end

if not (state.tat and state.born) then
  redis.call('DEL', key)
  state = {tat = now, born = now}
end
local bucket = {
  tat = math.min(state.tat, now + math.max(DEBT, interval)), born = state.born,
  idle = state.idle or 0, not_before = state.not_before or 0,
}
local members, in_need, others = state.members or 0, state.in_need or 0, state.held or 0
if now - (state.swept or 0) >= SECOND or now < (state.swept or 0) then
  members, in_need, others = 0, 0, 0
  local all = redis.call('HGETALL', key)
  for at = 1, #all, 2 do
    if string.sub(all[at], 1, 2) == 'm:' and all[at] ~= me then
      local has, need = read(all[at + 1], now)
      if has then
        members, in_need, others = members + 1, in_need + need, others + has
      else
        redis.call('HDEL', key, all[at])
      end
    end
  end
  redis.call('HSET', key, 'swept', string.format('%.0f', now))
  redis.call('EXPIRE', key, EXPIRY)
elseif state[me] then  -- counted as it stood when the sums were made, or has changed since
  local has, need = read(state[me], state.swept)
  members, in_need, others = members - 1, in_need - (need or 0), others - (has or 0)
end
members = math.max(members, 0) + 1
local most = math.max(state.most or 0, members)

-- What was spent without this server is paid for now: out of the time that was left unused meanwhile,
-- then out of the time to come. Nobody can say what a bucket from before had left.
local debt = owed * interval
if born == bucket.born then
  local unused = math.min(debt, math.max(0, bucket.idle - idle))
  bucket.idle = bucket.idle - unused
  bucket.tat = bucket.tat + debt - unused - returned * interval
elseif cut_off > 0 then
  bucket.tat = bucket.tat + debt * math.min(1, (now - bucket.born) / cut_off)
end

-- No more than the burst is there, nor with what is leased more than that and a slice a member.
local room = math.min(burst, math.max(0, burst + members * slice - math.max(0, others) - held))
local earliest = now - room * interval
if bucket.tat < earliest then
  bucket.idle = bucket.idle + earliest - bucket.tat
  bucket.tat = earliest
end

-- A busy member takes half of what is there and leaves the rest to others; one that nobody asks takes
-- what nobody needs, or what leaves enough behind.
local there = math.floor((now - bucket.tat) / interval)
local limit = math.max(slice, math.floor(there / 2))
local needy = math.max(0, in_need)
if in_demand == 0 and needy > 0 then limit = there - math.ceil(burst / 2) end
local granted = math.max(0, math.min(wanted, there, limit))
bucket.tat = bucket.tat + granted * interval
local need = (in_demand == 1 and held + granted < 1) and 1 or 0
if alone > 0 then bucket.not_before = math.max(bucket.not_before, now + alone) end

local function whole(number) return string.format('%.0f', number) end
redis.call('HSET', key,
  'tat', whole(math.ceil(bucket.tat)), 'born', whole(bucket.born), 'idle', whole(bucket.idle),
  'not_before', whole(bucket.not_before), 'members', whole(members), 'most', whole(most),
  'in_need', whole(needy + need), 'held', whole(math.max(0, others) + held + granted),
  me, whole(now) .. ' ' .. whole(held + granted) .. ' ' .. need)

local ready = bucket.tat + interval
local spare = (needy == 0 or now - bucket.tat >= burst * interval / 2) and 1 or 0
return {
  granted, members, most, needy + need, math.max(0, math.ceil(ready - now)), spare,
  bucket.born, math.floor(bucket.idle), math.max(0, math.ceil(bucket.not_before - now)), now,
}
