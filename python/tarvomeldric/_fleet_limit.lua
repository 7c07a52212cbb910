-- One exchange of a member with the bucket that its fleet has in common: it settles what the member
-- gives back and owes, and leases tokens to it. The bucket is the hash KEYS[1], by GCRA on this
-- server's clock, in microseconds:
--
--   tat         when the bucket is empty: tokens are there for the time since then
--   born        when it was made, or used again after it was left alone; such a one is empty
--   not_before  until when the provider wants to be left alone
--   members, most, in_need, held   sums over the members, and the largest membership ever
--   seen        when a member was last heard of
--   swept       when the sums were last made anew
--   m:<id>      a member: last seen, tokens held, whether it is in need
local SECOND = 1000000
local SWEEP, STALE, LEASE, DEBT, EXPIRY = SECOND, 10 * SECOND, 2.5 * SECOND, 60 * SECOND, 3600

local key, me = KEYS[1], 'm:' .. ARGV[1]
local given = {}
for at = 2, #ARGV do given[#given + 1] = tonumber(ARGV[at]) end
local interval, burst, slice, held, wanted, returned, in_demand, owed, cut_off, patience, born, alone =
  unpack(given)
local time = redis.call('TIME')
local now = time[1] * SECOND + time[2]

local NAMES = {'tat', 'born', 'seen', 'not_before', 'members', 'most', 'in_need', 'held', 'swept', me}
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

-- A bucket that all members were cut off from gives no second burst, and not to those who are back
-- while the others may still be spending their own part of the limit.
if not (state.tat and state.born and state.seen) or math.abs(now - state.seen) > LEASE then
  state.tat, state.born = now + patience, now
end
local birth = state.born
local tat = math.min(state.tat, now + math.max(DEBT, interval))
local not_before = state.not_before or 0
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

-- What was spent without this server is paid for now, as far as others may have spent it, too: what
-- all spent on their own before the bucket was made is nobody's debt.
if born == birth then
  tat = tat + (owed - returned) * interval
elseif cut_off > 0 then
  local since = math.max(0, now - birth - patience)
  tat = tat + owed * interval * math.min(1, since / cut_off)
end

-- No more than the burst is there, nor with what is leased more than that and a slice a member. What
-- this member has spent since it was last heard of was leased until now: nothing came in its place.
local leased = math.max(held, (state[me] and read(state[me], now) or 0) - returned)
local room = math.min(burst, math.max(0, burst + members * slice - math.max(0, others) - leased))
tat = math.max(tat, now - room * interval)

-- A busy member takes half of what is there and leaves the rest to others. One that nobody asks takes
-- what nobody needs, or what leaves enough behind, and gives back what it has to those in need.
local there = math.floor((now - tat) / interval)
local needy = math.max(0, in_need)
local granted
if in_demand == 1 then
  granted = math.max(0, math.min(wanted, there, math.max(slice, math.floor(there / 2))))
elseif there < needy then
  granted = -held
else
  local reserve = needy > 0 and math.max(needy, math.ceil(burst / 2)) or 0
  granted = math.max(0, math.min(wanted, there - reserve))
end
tat = tat + granted * interval
local need = (in_demand == 1 and held + granted < 1) and 1 or 0
if alone > 0 then not_before = math.max(not_before, now + alone) end

local function whole(number) return string.format('%.0f', number) end
redis.call('HSET', key,
  'tat', whole(math.ceil(tat)), 'born', whole(birth), 'seen', whole(now),
  'not_before', whole(not_before), 'members', whole(members), 'most', whole(most),
  'in_need', whole(needy + need), 'held', whole(math.max(0, others) + held + granted),
  me, whole(now) .. ' ' .. whole(held + granted) .. ' ' .. need)

local ready = tat + interval
return {
  granted, members, most, needy + need, math.max(0, math.ceil(ready - now)), birth,
  math.max(0, math.ceil(not_before - now)), now,
}
