SELECT DISTINCT CAST("vPeople"."flag" AS int) FROM "vPeople"
